/*
 * The kinds of request, one row each: how a kind is chosen for the next turn, how its
 * frames are built, how a reply settles it, what giving it up undoes and how its queue moves
 * on when it ends. A new kind is a FrameKind number, a row here and its own functions.
 * INTERNALS.md, The request state machine.
 */
#include "ads_ethernet.h"
#include "driver_private.h"

using namespace drv;

namespace {

/* ------------------------------------------------------------------ shared steps */

void buildNothing() { }
void settleNothing(const VARIABLE&) { }
void finishNothing(const RequestKind&, RequestOutcome) { }

void buildWrite()
{
    driver.framesBuilt = 1;
    getWriteFrame(driver.curVar);
}

/* The read of curVar: a cyclic block, a condition read or a recipe block. */
void buildRead()
{
    if (driver.curReadList.size() == 1) {
        copyVariable(*driver.curReadList.begin(), driver.curVar);
    } else {
        driver.curReadList.clear();
        driver.curReadList.append(driver.curVar);
    }
    driver.framesBuilt = getReadFrame(driver.curReadList);
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

/* ------------------------------------------------------------------ handshake
 * State: needHandShake, set by intf_initProperty and cleared by the length check when it
 * accepts the reply (check_rcv_data). */

KindChoice chooseHandshake(const RequestKind&, const HostFlags&)
{
    return driver.needHandShake ? kTakeTurn : kPassTurn;
}

/* ------------------------------------------------------------------ recipe write and read
 * State: the host's flag (hostFlag), the blocks rcpTransferList and the cursor rcpIndex.
 * A flag still up after the last block repeats the kind last in flight. */

KindChoice chooseRecipeBlock(const RequestKind& self, const HostFlags& flags)
{
    if (flags.at(self.hostFlag) != 1)
        return kPassTurn;
    if (driver.rcpIndex < 0 || driver.rcpIndex >= driver.rcpTransferList.size())
        return kRepeatLastKind;
    /* A recipe write takes its data from the host's recipe buffer. */
    rcpAddrToVar(driver.rcpTransferList.at(driver.rcpIndex), driver.curVar, self.number == kFrameRecipeWrite ? 1 : 0);
    return kTakeTurn;
}

void settleRecipeRead(const ReplyBytes& reply, int readLen, int dataStart, const VARIABLE& var)
{
    /* Noted before the cache's reports, whose callbacks may change the recipe lists. */
    RecipeSpan span = recipeSpanOfCurrentBlock();
    storeReadBytes(reply, readLen, dataStart, var);
    copyRecipeBytes(reply, dataStart, span);
}

/* The next block, or on the last one or a give-up back to the first and the flag cleared. */
void finishRecipeBlock(const RequestKind& self, RequestOutcome outcome)
{
    if (outcome == kRequestAnswered) {
        ++driver.rcpIndex;
        if (driver.rcpIndex < driver.rcpTransferList.size())
            return;
    }
    driver.rcpIndex = 0;
    clearHostFlag(self.hostFlag);
}

/* ------------------------------------------------------------------ queued kinds
 * State: their queue (writeList, conditionReadList; guarded by the driver's lock) and
 * priorityCount, the turns writes and condition reads have taken in a row. */

KindChoice chooseQueued(const RequestKind& self, const HostFlags&)
{
    const QList<VARIABLE>& queue = driver.*self.queue;
    if (driver.priorityCount > self.turnLimit || queue.isEmpty())
        return kPassTurn;
    copyVariable(driver.curVar, headOf(queue));
    driver.priorityCount += 1;
    return kTakeTurn;
}

/* ------------------------------------------------------------------ write
 * A bit write is two frames: the read of the bytes that hold the bits, then the write that
 * its reply completes; only the write's acknowledgement ends the request. */

void settleWriteData(const ReplyBytes& reply, int readLen, int dataStart, const VARIABLE& var)
{
    if (ruleOf(var.regName).isBit())
        completeBitWrite(reply, readLen, dataStart, var);
    else
        storeReadBytes(reply, readLen, dataStart, var);
}

/* Whatever the reply's ADS result (INTERNALS.md K21). */
void settleWriteAck(const VARIABLE& v) { _write_FailOrSuc(v.keyNo, v.regName, v.address, v.length, 1); }

void giveUpWrite(const VARIABLE& v) { _write_FailOrSuc(v.keyNo, v.regName, v.address, v.length, 0); }

void finishWrite(const RequestKind& self, RequestOutcome)
{
    DriverLock lock;
    QList<VARIABLE>& queue = driver.*self.queue;
    if (!queue.isEmpty())
        queue.removeFirst();
}

/* ------------------------------------------------------------------ condition read
 * State besides its queue: lastVar, the last piece the host queued, whose end is reported. */

const QString& endOfConditionReadText()
{
    static const QString text = QString::fromLatin1("-1");
    return text;
}

void finishConditionRead(const RequestKind& self, RequestOutcome outcome)
{
    DriverLock lock;
    QList<VARIABLE>& queue = driver.*self.queue;
    if (!queue.isEmpty() && driver.valueChangeCallBack) {
        const VARIABLE& head = headOf(queue);
        const VARIABLE& last = driver.lastVar;
        if (head.keyNo == last.keyNo && head.regName == last.regName && head.address == last.address
            && head.length == last.length) {
            /* The one report that names no area: the end of the host's condition read. Made
             * before the head goes, with the lock let go: the callback may queue the next
             * condition read. Only this thread removes the head, so it is the same one
             * afterwards. */
            VALUE_CHANGE_CALLBACK cb = driver.valueChangeCallBack;
            int result = outcome == kRequestGivenUp ? -1 : 0;
            lock.release();
            cb(-1, -1, endOfConditionReadText(), result);
            lock.acquire();
        }
    }
    if (outcome == kRequestGivenUp)
        queue.clear();
    else if (!queue.isEmpty())
        queue.removeFirst();
}

/* ------------------------------------------------------------------ cyclic read
 * State: readList, the blocks of the host's screen, served in turn. */

KindChoice chooseCyclicRead(const RequestKind& self, const HostFlags&)
{
    const QList<VARIABLE>& queue = driver.*self.queue;
    if (queue.isEmpty())
        return kPassTurn;
    copyVariable(driver.curVar, headOf(queue));
    driver.priorityCount = 0;
    return kTakeTurn;
}

/* The block read goes to the end. */
void finishCyclicRead(const RequestKind& self, RequestOutcome)
{
    QList<VARIABLE>& queue = driver.*self.queue;
    if (queue.size() >= 2)
        queue.move(0, queue.size() - 1);
}

/* ------------------------------------------------------------------ idle
 * Nothing to send: every queue is empty, or only writes and condition reads are queued and
 * they have taken their turns. The count starts again, so the next call serves them. */

KindChoice chooseIdle(const RequestKind&, const HostFlags&)
{
    driver.priorityCount = 0;
    return kTakeTurn;
}

}  // namespace

namespace drv {

/* By number. */
const RequestKind kRequestKinds[kFrameKindCount] = {
    {kFrameNone, 0, 0, 0, chooseIdle, buildNothing, storeReadBytes, settleNothing, settleNothing, finishNothing},
    {kFrameHandshake, 0, 0, 0, chooseHandshake, handShakeFrame, storeReadBytes, settleNothing, settleNothing,
        finishNothing},
    /* At most 10 writes in a row, then at most 3 condition reads (the count is shared). */
    {kFrameWrite, &Protocol::writeList, 9, 0, chooseQueued, buildWrite, settleWriteData, settleWriteAck, giveUpWrite,
        finishWrite},
    {kFrameConditionRead, &Protocol::conditionReadList, 2, 0, chooseQueued, buildRead, storeReadBytes, settleNothing,
        settleNothing, finishConditionRead},
    {kFrameCyclicRead, &Protocol::readList, 0, 0, chooseCyclicRead, buildRead, storeReadBytes, settleNothing,
        settleNothing, finishCyclicRead},
    {kFrameRecipeWrite, 0, 0, HOST_FLAG_RECIPE_WRITE, chooseRecipeBlock, buildWrite, storeReadBytes, settleNothing,
        settleNothing, finishRecipeBlock},
    {kFrameRecipeRead, 0, 0, HOST_FLAG_RECIPE_READ, chooseRecipeBlock, buildRead, settleRecipeRead, settleNothing,
        settleNothing, finishRecipeBlock},
};

const RequestKind* const kChoosingOrder[kFrameKindCount] = {
    &kRequestKinds[kFrameHandshake],
    &kRequestKinds[kFrameRecipeWrite],
    &kRequestKinds[kFrameRecipeRead],
    &kRequestKinds[kFrameWrite],
    &kRequestKinds[kFrameConditionRead],
    &kRequestKinds[kFrameCyclicRead],
    &kRequestKinds[kFrameNone],
};

void queueRequest(QList<VARIABLE>& queue, const VARIABLE& v)
{
    for (int i = queue.size() - 1; i >= 1; --i) {
        const VARIABLE& q = queue.at(i);
        if (q.keyNo == v.keyNo && q.regName == v.regName && q.address == v.address && q.length == v.length) {
            queue[i] = v;
            return;
        }
    }
    if (queue.size() > kMaxQueued)
        queue[kMaxQueued] = v;
    else
        queue.append(v);
}

}  // namespace drv
