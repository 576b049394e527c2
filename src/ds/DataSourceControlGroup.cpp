// The DG_CONTROL triplets that need an open engine.
#include "capabilities/Capabilities.h"
#include "ds/DataSourceEngine.h"

namespace zentary {

using namespace twain;

namespace {

TW_UINT16 failWith(TW_UINT16* conditionCode, TW_UINT16 code)
{
    if (conditionCode) *conditionCode = code;
    return TWRC_FAILURE;
}

}  // namespace

TW_UINT16 DataSourceEngine::control(TW_IDENTITY* /*origin*/, TW_UINT16 type, TW_UINT16 message, TW_MEMREF data,
                                    TW_UINT16* conditionCode)
{
    switch (type) {
    case DAT_CAPABILITY:
        return capability(message, static_cast<TW_CAPABILITY*>(data), conditionCode);
    case DAT_EVENT:
        return event(message, static_cast<TW_EVENT*>(data), conditionCode);
    case DAT_XFERGROUP:
        return transferGroup(message, static_cast<TW_UINT32*>(data), conditionCode);
    default:
        return failWith(conditionCode, TWCC_BADPROTOCOL);
    }
}

TW_UINT16 DataSourceEngine::capability(TW_UINT16 message, TW_CAPABILITY* cap, TW_UINT16* conditionCode)
{
    if (!cap) return failWith(conditionCode, TWCC_BADVALUE);
    Capabilities& caps = *mCapabilities;
    switch (message) {
    case MSG_GET:
        return caps.getTwain(cap, conditionCode);
    case MSG_GETCURRENT:
        return caps.getCurrentTwain(cap, conditionCode);
    case MSG_GETDEFAULT:
        return caps.getDefaultTwain(cap, conditionCode);
    case MSG_QUERYSUPPORT:
        return caps.querySupportTwain(cap, conditionCode);
    case MSG_SET:
    case MSG_RESET:
        // Capabilities are negotiated before the source is enabled; from
        // then on they can be read but not changed.
        if (mState != kStateOpen) return failWith(conditionCode, TWCC_SEQERROR);
        return message == MSG_SET ? caps.setTwain(cap, conditionCode) : caps.resetTwain(cap, conditionCode);
    default:
        return failWith(conditionCode, TWCC_BADPROTOCOL);
    }
}

TW_UINT16 DataSourceEngine::event(TW_UINT16 message, TW_EVENT* event, TW_UINT16* conditionCode)
{
    if (!event) return failWith(conditionCode, TWCC_BADVALUE);
    if (message != MSG_PROCESSEVENT) return failWith(conditionCode, TWCC_BADPROTOCOL);
    if (mState < kStateEnabled) return failWith(conditionCode, TWCC_SEQERROR);
    // Our windows live in another process: no client event is ever ours.
    event->TWMessage = MSG_NULL;
    return TWRC_NOTDSEVENT;
}

TW_UINT16 DataSourceEngine::transferGroup(TW_UINT16 message, TW_UINT32* group, TW_UINT16* conditionCode)
{
    if (!group) return failWith(conditionCode, TWCC_BADVALUE);
    if (message != MSG_GET) return failWith(conditionCode, TWCC_BADPROTOCOL);
    if (mState > kStateTransferReady) return failWith(conditionCode, TWCC_SEQERROR);
    *group = DG_IMAGE;
    return TWRC_SUCCESS;
}

}  // namespace zentary
