// Change notification for the window models: observers learn which property
// changed and read the new value themselves, so a model never needs to know
// who draws it.
#pragma once

#include <cstdint>
#include <functional>
#include <string_view>
#include <utility>
#include <vector>

namespace zentary {

class Observable {
public:
    using Observer = std::function<void(std::string_view key)>;
    using Token = std::uint64_t;

    Observable() = default;
    Observable(const Observable&) = delete;
    Observable& operator=(const Observable&) = delete;

    Token addObserver(Observer observer)
    {
        mObservers.emplace_back(++mLastToken, std::move(observer));
        return mLastToken;
    }
    void removeObserver(Token token)
    {
        std::erase_if(mObservers, [token](const auto& entry) { return entry.first == token; });
    }

protected:
    ~Observable() = default;

    void notify(std::string_view key)
    {
        // A copy, so an observer may add or remove observers while told.
        auto observers = mObservers;
        for (const auto& entry : observers) entry.second(key);
    }

private:
    std::vector<std::pair<Token, Observer>> mObservers;
    Token mLastToken = 0;
};

}  // namespace zentary
