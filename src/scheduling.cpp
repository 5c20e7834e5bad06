/*
 * Send scheduling: which request goes out next (intf_getSendFrame), asked of the request
 * kinds in turn (request_kinds.cpp), and dealListWhenFinish. INTERNALS.md, The request state
 * machine.
 */
#include "ads_ethernet.h"
#include "driver_private.h"

using namespace drv;

void dealListWhenFinish()
{
    /* For callers outside the reply handling, which passes the outcome itself. */
    const RequestKind& kind = requestKindOf(driver.curFrameKind);
    kind.finish(kind, driver.commFailed ? kRequestGivenUp : kRequestAnswered);
}

namespace {

/* Reads the recipe request flags under the host's mutex (never with ours held). */
HostFlags readHostFlags()
{
    HostFlags flags = {0, 0};
    if (!driver.hostStatusBlock)
        return flags;
    if (driver.hostMutex)
        driver.hostMutex->lock();
    flags.recipeWrite = driver.hostStatusBlock[HOST_FLAG_RECIPE_WRITE];
    flags.recipeRead = driver.hostStatusBlock[HOST_FLAG_RECIPE_READ];
    if (driver.hostMutex)
        driver.hostMutex->unlock();
    return flags;
}

bool copyHead(FRAME_PRO* out)
{
    if (driver.frameList.isEmpty())
        return false;
    copyFrame(*out, headOf(driver.frameList));
    return true;
}

/* Asks the kinds in their order for the next request and builds its frames. */
void startNextRequest(const HostFlags& flags)
{
    const RequestKind* chosen = &kRequestKinds[kFrameNone];
    KindChoice choice = kTakeTurn;
    {
        /* The host's other thread may be queueing writes and condition reads right now: the
         * queues are looked at, and a head copied, under one hold of the lock. */
        DriverLock lock;
        for (int i = 0; i < kFrameKindCount; ++i) {
            const RequestKind& kind = *kChoosingOrder[i];
            choice = kind.choose(kind, flags);
            if (choice != kPassTurn) {
                chosen = &kind;
                break;
            }
        }
    }
    if (choice == kRepeatLastKind) {
        requestKindOf(driver.curFrameKind).build();
        return;
    }
    driver.curFrameKind = chosen->number;
    chosen->build();
}

}  // namespace

int intf_getSendFrame(FRAME_PRO* out)
{
    if (!out)
        return 0;
    /* One request in flight: it is handed out again until it is answered or given up. */
    if (copyHead(out))
        return 1;
    startNextRequest(readHostFlags());
    return copyHead(out) ? 1 : 0;
}
