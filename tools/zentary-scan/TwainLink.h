// What a scan needs from the path to the data source: triplets to the open
// source, the messages it sends back, and the memory functions its handles
// belong to. The built-in manager (DataSourceManager) and an installed TWAIN
// manager (InstalledManager) both provide it, so negotiation, transfers and
// error texts are one code path whichever carries the triplets.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <span>

#include "HandleExtent.h"
#include "twain/twain.h"

namespace zentary {

class TwainLink {
public:
    virtual ~TwainLink() = default;

    // The source's identity as it was reported.
    virtual TW_IDENTITY& source() = 0;
    // A triplet from the application to the open source.
    virtual TW_UINT16 call(TW_UINT32 group, TW_UINT16 type, TW_UINT16 message, TW_MEMREF data) = 0;
    virtual TW_UINT16 open() = 0;
    virtual TW_UINT16 close() = 0;
    // DAT_STATUS: the source's condition code (the call clears it).
    TW_UINT16 conditionCode();
    // MSG_XFERREADY, MSG_CLOSEDSREQ, ... as the source sent them, oldest
    // first; waits up to `timeout`.
    std::optional<TW_UINT16> waitForMessage(std::chrono::milliseconds timeout);

    // Handles, through the memory functions the source also uses.
    virtual TW_HANDLE allocate(TW_UINT32 size) = 0;
    virtual void release(TW_HANDLE handle) = 0;
    virtual TW_MEMREF lock(TW_HANDLE handle) = 0;
    virtual void unlock(TW_HANDLE handle) = 0;
    // The allocated size of a handle the source gave us, or nothing when it
    // cannot be known: such a handle is read only as far as its contents
    // say (see OwnedHandle::bytes).
    virtual std::optional<std::size_t> sizeOf(TW_HANDLE handle) = 0;

protected:
    // A message from the source, from whatever thread the callback came on.
    void deliver(TW_UINT16 message);

private:
    std::mutex mMutex;
    std::condition_variable mArrived;
    std::deque<TW_UINT16> mMessages;
};

inline TW_UINT16 TwainLink::conditionCode()
{
    TW_STATUS status{};
    if (call(twain::DG_CONTROL, twain::DAT_STATUS, twain::MSG_GET, &status) != twain::TWRC_SUCCESS)
        return twain::TWCC_BUMMER;
    return status.ConditionCode;
}

inline std::optional<TW_UINT16> TwainLink::waitForMessage(std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(mMutex);
    if (!mArrived.wait_for(lock, timeout, [this] { return !mMessages.empty(); })) return std::nullopt;
    TW_UINT16 message = mMessages.front();
    mMessages.pop_front();
    return message;
}

inline void TwainLink::deliver(TW_UINT16 message)
{
    // Notified under the lock: the waiter may take the message and destroy
    // this link at once, and must not do so while we still touch it.
    std::lock_guard<std::mutex> guard(mMutex);
    mMessages.push_back(message);
    mArrived.notify_all();
}

// A handle the source handed over: ours to free, readable only within its
// allocated size.
class OwnedHandle {
public:
    OwnedHandle(TwainLink& link, TW_HANDLE handle) : mLink(link), mHandle(handle) {}
    ~OwnedHandle()
    {
        if (mLocked) mLink.unlock(mHandle);
        if (mHandle) mLink.release(mHandle);
    }
    OwnedHandle(const OwnedHandle&) = delete;
    OwnedHandle& operator=(const OwnedHandle&) = delete;

    // The extent of a handle's contents, walked through a reader.
    using Extent = std::function<std::optional<std::uint64_t>(const ByteReader&)>;

    // Empty when there is no handle, or its size is unknown and `extent`
    // cannot tell it from the contents.
    std::span<const std::uint8_t> bytes(const Extent& extent = {})
    {
        if (!mHandle) return {};
        std::optional<std::size_t> size = mLink.sizeOf(mHandle);
        if (!size && !extent) return {};
        if (!mLocked) {
            mData = mLink.lock(mHandle);
            mLocked = true;
        }
        if (!mData) return {};
        const auto* data = static_cast<const std::uint8_t*>(mData);
        if (!size) {
            // A manager's handle: as far as the contents claim, within what
            // a classic TIFF or a container can address at all.
            std::optional<std::uint64_t> end = extent([data](std::uint64_t offset, std::size_t length, void* out) {
                if (offset > kMaxUnsizedBytes || length > kMaxUnsizedBytes - offset) return false;
                std::memcpy(out, data + offset, length);
                return true;
            });
            if (!end) return {};
            size = static_cast<std::size_t>(*end);
        }
        return {data, *size};
    }

    static constexpr std::uint64_t kMaxUnsizedBytes = 0xFFFFFFFFu;

private:
    TwainLink& mLink;
    TW_HANDLE mHandle;
    TW_MEMREF mData = nullptr;
    bool mLocked = false;
};

}  // namespace zentary
