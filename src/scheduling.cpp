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
        if (!driver.conditionReadList.isEmpty()) {
            const VARIABLE& head = driver.conditionReadList.first();
            const VARIABLE& last = driver.lastVar;
            if (head.keyNo == last.keyNo && head.regName == last.regName && head.address == last.address
                && head.length == last.length && driver.valueChangeCallBack) {
                /* The one report that names no area: the end of the host's condition read. */
                driver.valueChangeCallBack(-1, -1, QString::fromLatin1("-1"), driver.commFailed ? -1 : 0);
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
    bool haveWrite = false;
    if (driver.priorityCount <= 9) {
        DriverLock lock;
        if (!driver.writeList.isEmpty()) {
            copyVariable(driver.curVar, headOf(driver.writeList));
            haveWrite = true;
        }
    }
    if (haveWrite) {
        driver.curFrameKind = kFrameWrite;
        driver.priorityCount += 1;
        driver.framesBuilt = 1;
        getWriteFrame(driver.curVar);
    } else if (!driver.conditionReadList.isEmpty() && driver.priorityCount <= 2) {
        copyVariable(driver.curVar, headOf(driver.conditionReadList));
        driver.curFrameKind = kFrameConditionRead;
        driver.priorityCount += 1;
        buildCurrentRead();
    } else if (driver.readList.isEmpty()) {
        driver.priorityCount = 0;
        driver.curFrameKind = kFrameNone;
        driver.frameList.clear();
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
