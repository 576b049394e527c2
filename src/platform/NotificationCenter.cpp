#include "platform/NotificationCenter.h"

#include <vector>

namespace zentary {

NotificationCenter& NotificationCenter::defaultCenter()
{
    static NotificationCenter center;
    return center;
}

NotificationCenter::Token NotificationCenter::addObserver(const std::string& name, std::function<void()> handler)
{
    std::lock_guard<std::mutex> guard(mMutex);
    Token token = mNext++;
    mObservers.emplace(token, Observer{name, std::move(handler)});
    return token;
}

void NotificationCenter::removeObserver(Token token)
{
    std::lock_guard<std::mutex> guard(mMutex);
    mObservers.erase(token);
}

void NotificationCenter::post(const std::string& name)
{
    std::vector<Token> targets;
    {
        std::lock_guard<std::mutex> guard(mMutex);
        for (const auto& [token, observer] : mObservers)
            if (observer.name == name) targets.push_back(token);
    }
    for (Token token : targets) {
        std::function<void()> handler;
        {
            std::lock_guard<std::mutex> guard(mMutex);
            auto it = mObservers.find(token);
            if (it == mObservers.end()) continue;
            handler = it->second.handler;
        }
        handler();
    }
}

}  // namespace zentary
