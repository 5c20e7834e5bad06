/*
 * Send scheduling: which request goes out next (intf_getSendFrame) and how its queue moves
 * on when it is answered or given up (dealListWhenFinish). INTERNALS.md, The request state
 * machine.
 */
#include "ads_ethernet.h"
#include "driver_private.h"

using namespace drv;

namespace {

/* Reads the two recipe request flags under the host's mutex (never with ours held). */
void readHostFlags(unsigned char& writeFlag, unsigned char& readFlag)
{
    writeFlag = 0;
    readFlag = 0;
    if (!driver.hostStatusBlock)
        return;
    if (driver.hostMutex)
        driver.hostMutex->lock();
    writeFlag = driver.hostStatusBlock[HOST_FLAG_RECIPE_WRITE];
    readFlag = driver.hostStatusBlock[HOST_FLAG_RECIPE_READ];
    if (driver.hostMutex)
        driver.hostMutex->unlock();
}

const QString& endOfConditionReadText()
{
    static const QString text = QString::fromLatin1("-1");
    return text;
}

void clearHostFlag(int position)
{
    if (!driver.hostStatusBlock)
        return;
    if (driver.hostMutex)
        driver.hostMutex->lock();
    driver.hostStatusBlock[position] = 0;
    if (driver.hostMutex)
        driver.hostMutex->unlock();
}

}  // namespace

void dealListWhenFinish()
{
    switch (driver.curFrameKind) {
    case kFrameWrite: {
        DriverLock lock;
        if (!driver.writeList.isEmpty())
            driver.writeList.removeFirst();
        break;
    }
    case kFrameConditionRead: {
        DriverLock lock;
        if (!driver.conditionReadList.isEmpty() && driver.valueChangeCallBack) {
            const VARIABLE& head = headOf(driver.conditionReadList);
            const VARIABLE& last = driver.lastVar;
            if (head.keyNo == last.keyNo && head.regName == last.regName && head.address == last.address
                && head.length == last.length) {
                /* The one report that names no area: the end of the host's condition read.
                 * Made before the head goes, with the lock let go: the callback may queue the
                 * next condition read. Only this thread removes the head, so it is the same
                 * one afterwards. */
                VALUE_CHANGE_CALLBACK cb = driver.valueChangeCallBack;
                int result = driver.commFailed ? -1 : 0;
                lock.release();
                cb(-1, -1, endOfConditionReadText(), result);
                lock.acquire();
            }
        }
        if (driver.commFailed)
            driver.conditionReadList.clear();
        else if (!driver.conditionReadList.isEmpty())
            driver.conditionReadList.removeFirst();
        break;
    }
    case kFrameCyclicRead:
        if (driver.readList.size() >= 2)
            driver.readList.move(0, driver.readList.size() - 1);
        break;
    case kFrameRecipeWrite:
    case kFrameRecipeRead:
        if (!driver.commFailed) {
            ++driver.rcpIndex;
            if (driver.rcpIndex < driver.rcpTransferList.size())
                break;
        }
        driver.rcpIndex = 0;
        clearHostFlag(driver.curFrameKind == kFrameRecipeWrite ? HOST_FLAG_RECIPE_WRITE : HOST_FLAG_RECIPE_READ);
        break;
    default:
        break;
    }
}

/* ====================================================================================
 * Send scheduling
 * ================================================================================== */

namespace {

/* The read of the current variable: a cyclic block, a condition read or a recipe block. */
void buildCurrentRead()
{
    if (driver.curReadList.size() == 1) {
        copyVariable(*driver.curReadList.begin(), driver.curVar);
    } else {
        driver.curReadList.clear();
        driver.curReadList.append(driver.curVar);
    }
    driver.framesBuilt = 1;
    int built = getReadFrame(driver.curReadList);
    if (driver.curFrameKind == kFrameConditionRead || driver.curFrameKind == kFrameRecipeRead)
        driver.framesBuilt = built;
}

bool copyHead(FRAME_PRO* out)
{
    if (driver.frameList.isEmpty())
        return false;
    copyFrame(*out, headOf(driver.frameList));
    return true;
}

/* A recipe flag is up but every block has been sent: repeat the last kind of request. */
bool repeatLastKind()
{
    switch (driver.curFrameKind) {
    case kFrameWrite:
    case kFrameRecipeWrite:
        driver.framesBuilt = 1;
        getWriteFrame(driver.curVar);
        return true;
    case kFrameConditionRead:
    case kFrameCyclicRead:
    case kFrameRecipeRead:
        buildCurrentRead();
        return true;
    case kFrameHandshake:
        handShakeFrame();
        return true;
    default:
        return false;
    }
}

}  // namespace

namespace {

/* The recipe transfer's next block, written (recipe-write flag) or read; when every block
 * has been sent, the last kind again. False: nothing to send. */
bool startRecipeBlock(bool write)
{
    if (driver.rcpIndex < 0 || driver.rcpIndex >= driver.rcpTransferList.size())
        return repeatLastKind();
    rcpAddrToVar(driver.rcpTransferList.at(driver.rcpIndex), driver.curVar, write ? 1 : 0);
    if (write) {
        driver.curFrameKind = kFrameRecipeWrite;
        driver.framesBuilt = 1;
        getWriteFrame(driver.curVar);
    } else {
        driver.curFrameKind = kFrameRecipeRead;
        buildCurrentRead();
    }
    return true;
}

/* A queued write (at most 10 in a row), else a condition read (at most 3 in a row, the
 * count shared with writes), else the next cyclic read. False: every queue is empty. */
bool startQueuedRequest()
{
    FrameKind queued = kFrameNone;
    {
        /* The host's other thread may be queueing writes and condition reads right now. */
        DriverLock lock;
        if (driver.priorityCount <= 9 && !driver.writeList.isEmpty()) {
            copyVariable(driver.curVar, headOf(driver.writeList));
            queued = kFrameWrite;
        } else if (driver.priorityCount <= 2 && !driver.conditionReadList.isEmpty()) {
            copyVariable(driver.curVar, headOf(driver.conditionReadList));
            queued = kFrameConditionRead;
        }
    }
    if (queued == kFrameWrite) {
        driver.curFrameKind = kFrameWrite;
        driver.priorityCount += 1;
        driver.framesBuilt = 1;
        getWriteFrame(driver.curVar);
    } else if (queued == kFrameConditionRead) {
        driver.curFrameKind = kFrameConditionRead;
        driver.priorityCount += 1;
        buildCurrentRead();
    } else if (driver.readList.isEmpty()) {
        driver.priorityCount = 0;
        driver.curFrameKind = kFrameNone;
        removeAllFrames();
        return false;
    } else {
        copyVariable(driver.curVar, headOf(driver.readList));
        driver.curFrameKind = kFrameCyclicRead;
        driver.priorityCount = 0;
        buildCurrentRead();
    }
    return true;
}

}  // namespace

int intf_getSendFrame(FRAME_PRO* out)
{
    if (!out)
        return 0;
    /* One request in flight: it is handed out again until it is answered or given up. */
    if (copyHead(out))
        return 1;

    unsigned char recipeWrite = 0;
    unsigned char recipeRead = 0;
    readHostFlags(recipeWrite, recipeRead);

    if (driver.needHandShake) {
        driver.curFrameKind = kFrameHandshake;
        handShakeFrame();
    } else if (recipeWrite == 1 || recipeRead == 1) {
        if (!startRecipeBlock(recipeWrite == 1))
            return 0;
    } else if (!startQueuedRequest()) {
        return 0;
    }
    return copyHead(out) ? 1 : 0;
}
