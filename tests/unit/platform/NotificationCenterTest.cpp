#include <string>
#include <vector>

#include "platform/NotificationCenter.h"
#include <gtest/gtest.h>

namespace zentary {
namespace {

TEST(NotificationCenter, ObserversChangedDuringAPost)
{
    NotificationCenter center;
    std::vector<std::string> calls;
    NotificationCenter::Token b = 0, self = 0, late = 0;
    center.addObserver("ScanCompletedNotification", [&] {
        calls.push_back("a");
        center.removeObserver(b);
        late = center.addObserver("ScanCompletedNotification", [&] { calls.push_back("late"); });
    });
    b = center.addObserver("ScanCompletedNotification", [&] { calls.push_back("b"); });
    self = center.addObserver("ScanCompletedNotification", [&] {
        calls.push_back("self");
        center.removeObserver(self);
    });
    center.addObserver("ScanAbortedNotification", [&] { calls.push_back("other"); });

    center.post("ScanCompletedNotification");
    // b was removed before its turn; the observer added during the post waits
    // for the next one; self removed itself but finished its own call.
    EXPECT_EQ(calls, (std::vector<std::string>{"a", "self"}));

    calls.clear();
    center.removeObserver(late);
    center.post("ScanCompletedNotification");
    EXPECT_EQ(calls, (std::vector<std::string>{"a"}));  // a re-adds "late"
    center.post("ScanCompletedNotification");
    EXPECT_EQ(calls, (std::vector<std::string>{"a", "a", "late"}));
}

}  // namespace
}  // namespace zentary
