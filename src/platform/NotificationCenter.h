// Named notifications without sender or payload, delivered synchronously on
// the thread that posts them (the engine's loop thread in practice).
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>

namespace zentary {

class NotificationCenter {
public:
    using Token = std::uint64_t;

    static NotificationCenter& defaultCenter();

    Token addObserver(const std::string& name, std::function<void()> handler);
    // After this returns, the handler is never called again.
    void removeObserver(Token token);
    // Calls every observer of `name` that exists when the post starts and is
    // still registered when its turn comes.
    void post(const std::string& name);

private:
    struct Observer {
        std::string name;
        std::function<void()> handler;
    };
    std::mutex mMutex;
    std::map<Token, Observer> mObservers;
    Token mNext = 1;
};

}  // namespace zentary
