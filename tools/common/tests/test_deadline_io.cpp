#include "adstool/deadline_io.h"
#include "adstool/le.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

using namespace adstool;

namespace {

// A listener on 127.0.0.1 and one accepted connection to it.
struct Pair {
    int listener = -1, client = -1, server = -1;
    uint16_t port = 0;
    Pair()
    {
        sockaddr_in bound {};
        std::string why;
        listener = listenTcp("127.0.0.1", 0, &bound, &why);
        EXPECT_GE(listener, 0) << why;
        port = ntohs(bound.sin_port);
    }
    bool connect()
    {
        std::string why;
        client = connectTcp("127.0.0.1", port, Deadline(2000), &why);
        EXPECT_GE(client, 0) << why;
        if (!waitReadable(listener, Deadline(2000)))
            return false;
        server = ::accept(listener, nullptr, nullptr);
        return client >= 0 && server >= 0;
    }
    ~Pair()
    {
        for (int fd : {listener, client, server})
            if (fd >= 0)
                ::close(fd);
    }
};

}  // namespace

TEST(DeadlineIo, DeadlineCountsDown)
{
    const Deadline d(200);
    EXPECT_GT(d.leftMs(), 100);
    EXPECT_LE(d.leftMs(), 200);
    EXPECT_FALSE(d.expired());
    EXPECT_TRUE(Deadline(0).expired());
    EXPECT_TRUE(Deadline(-5).expired());
    EXPECT_EQ(Deadline::at(nowMs() - 1000).leftMs(), 0);
}

TEST(DeadlineIo, ListensOnAFreePortAndTellsIt)
{
    Pair p;
    EXPECT_NE(p.port, 0);
    std::string why;
    EXPECT_LT(listenTcp("no-such-address", 0, nullptr, &why), 0);
    EXPECT_NE(why.find("no-such-address"), std::string::npos) << why;
}

TEST(DeadlineIo, SendAndReceiveExactly)
{
    Pair p;
    ASSERT_TRUE(p.connect());
    const std::string msg = "hello, world";
    ASSERT_EQ(sendAll(p.client, msg.data(), msg.size(), Deadline(2000)), IoStatus::Ok);
    char buf[32] = {};
    ASSERT_EQ(recvExact(p.server, buf, msg.size(), Deadline(2000)), IoStatus::Ok);
    EXPECT_EQ(std::string(buf, msg.size()), msg);
}

TEST(DeadlineIo, ReceiveTimesOutAtTheDeadline)
{
    Pair p;
    ASSERT_TRUE(p.connect());
    char buf[4];
    const int64_t t0 = nowMs();
    EXPECT_EQ(recvExact(p.server, buf, sizeof buf, Deadline(150)), IoStatus::TimedOut);
    const int64_t took = nowMs() - t0;
    EXPECT_GE(took, 140);
    EXPECT_LT(took, 1500);
}

TEST(DeadlineIo, ReceiveSeesTheClose)
{
    Pair p;
    ASSERT_TRUE(p.connect());
    ASSERT_EQ(sendAll(p.client, "ab", 2, Deadline(1000)), IoStatus::Ok);
    ::close(p.client);
    p.client = -1;
    char buf[4];
    EXPECT_EQ(recvExact(p.server, buf, 4, Deadline(2000)), IoStatus::Closed);
    EXPECT_STREQ(ioStatusText(IoStatus::Closed), "closed by the peer");
}

TEST(DeadlineIo, SendTimesOutWhenThePeerDoesNotRead)
{
    Pair p;
    ASSERT_TRUE(p.connect());
    const std::vector<uint8_t> big(64 * 1024 * 1024, 0x55);  // more than both socket buffers hold
    const int64_t t0 = nowMs();
    EXPECT_EQ(sendAll(p.client, big.data(), big.size(), Deadline(200)), IoStatus::TimedOut);
    EXPECT_LT(nowMs() - t0, 3000);
}

TEST(DeadlineIo, ConnectToAClosedPortFails)
{
    uint16_t port = 0;
    {
        Pair p;
        port = p.port;
    }  // closed again: nothing listens there now
    std::string why;
    EXPECT_LT(connectTcp("127.0.0.1", port, Deadline(2000), &why), 0);
    EXPECT_NE(why.find(std::to_string(port)), std::string::npos) << why;
    EXPECT_LT(connectTcp("not-an-address", 80, Deadline(100), &why), 0);
}

TEST(DeadlineIo, StreamReadsLinesAndFrames)
{
    Pair p;
    sockaddr_in a {};
    ASSERT_TRUE(toSockaddr("127.0.0.1", p.port, a));
    EXPECT_EQ(sockaddrText(a), "127.0.0.1:" + std::to_string(p.port));
    TcpStream s;
    ASSERT_TRUE(s.connect("127.0.0.1", p.port));
    ASSERT_TRUE(waitReadable(p.listener, Deadline(2000)));
    const int server = ::accept(p.listener, nullptr, nullptr);
    ASSERT_GE(server, 0);
    std::vector<uint8_t> out = {'o', 'k', ' ', '1', '\r', '\n', 's', 'e', 'c', 'o', 'n', 'd', '\n'};
    // An AMS/TCP frame of 6 + 3 bytes, then one byte of the next.
    out.push_back(0);
    out.push_back(0);
    putU32(out, 3);
    out.insert(out.end(), {7, 8, 9, 0});
    ASSERT_EQ(sendAll(server, out.data(), out.size(), Deadline(1000)), IoStatus::Ok);
    std::string line;
    ASSERT_TRUE(s.readLine(line));
    EXPECT_EQ(line, "ok 1");
    ASSERT_TRUE(s.readLine(line));
    EXPECT_EQ(line, "second");
    std::vector<uint8_t> frame;
    ASSERT_TRUE(s.readFrame(frame));
    EXPECT_EQ(frame, (std::vector<uint8_t> {0, 0, 3, 0, 0, 0, 7, 8, 9}));
    EXPECT_EQ(s.buffered(), 1u);
    // The rest of that frame never comes: a time-out that keeps what is buffered.
    const int64_t t0 = nowMs();
    EXPECT_FALSE(s.readFrame(frame, 100));
    EXPECT_GE(nowMs() - t0, 90);
    EXPECT_FALSE(s.peerClosed());
    ASSERT_TRUE(s.sendAll(std::vector<uint8_t> {'x'}));
    char c = 0;
    ASSERT_EQ(recvExact(server, &c, 1, Deadline(1000)), IoStatus::Ok);
    EXPECT_EQ(c, 'x');
    ::close(server);
    EXPECT_TRUE(s.waitClosed(2000));
    EXPECT_TRUE(s.peerClosed());
    EXPECT_FALSE(s.readLine(line, 100));
}

TEST(AmsFrameSize, HeaderPlusLengthFieldUpToTheLimit)
{
    const uint8_t small[6] = {0, 0, 32, 0, 0, 0};
    EXPECT_EQ(adstool::amsFrameSize(small, 65536), 38u);
    const uint8_t atLimit[6] = {0, 0, 0, 0, 1, 0};
    EXPECT_EQ(adstool::amsFrameSize(atLimit, 65536), 6u + 65536u);
    const uint8_t tooLong[6] = {0, 0, 1, 0, 1, 0};
    EXPECT_EQ(adstool::amsFrameSize(tooLong, 65536), 6u);
}

TEST(ConnectTcpWaiting, ConnectsAndTellsEachFailure)
{
    Pair p;
    ConnectResult ok = connectTcpWaiting("127.0.0.1", p.port, 2000);
    ASSERT_EQ(ok.status, ConnectStatus::Ok);
    EXPECT_GE(ok.fd, 0);
    ::close(ok.fd);
    ok = connectTcpWaiting("localhost", p.port, 2000);  // a name that resolves
    ASSERT_EQ(ok.status, ConnectStatus::Ok);
    ::close(ok.fd);

    const uint16_t port = p.port;
    ::close(p.listener);
    p.listener = -1;  // nothing listens there now
    const ConnectResult refused = connectTcpWaiting("127.0.0.1", port, 2000);
    EXPECT_EQ(refused.status, ConnectStatus::Refused);
    EXPECT_EQ(refused.fd, -1);
    EXPECT_EQ(connectTcpWaiting("no-such-host.invalid", port, 2000).status, ConnectStatus::Unresolved);
}

TEST(ConnectTcpWaiting, AStopRequestEndsTheWait)
{
    // 127.0.0.1 answers at once, so the stop flag is only seen where the connection is still
    // under way: the flag set before the call ends the wait without a connection or not at
    // all; either way it returns at once.
    Pair p;
    volatile sig_atomic_t stop = 1;
    const int64_t t0 = nowMs();
    const ConnectResult r = connectTcpWaiting("127.0.0.1", p.port, 5000, &stop);
    EXPECT_TRUE(r.status == ConnectStatus::Ok || r.status == ConnectStatus::Interrupted);
    EXPECT_LT(nowMs() - t0, 1000);
    if (r.fd >= 0)
        ::close(r.fd);
}

TEST(ReadExactWaiting, KeepsWhatCameAndTellsWhy)
{
    Pair p;
    ASSERT_TRUE(p.connect());
    ASSERT_EQ(sendAll(p.client, "abc", 3, Deadline(1000)), IoStatus::Ok);
    std::vector<uint8_t> out {'x'};
    EXPECT_EQ(readExactWaiting(p.server, 2, out, nowMs() + 2000), ReadStatus::Ok);
    EXPECT_EQ(std::string(out.begin(), out.end()), "xab");
    const int64_t t0 = nowMs();
    EXPECT_EQ(readExactWaiting(p.server, 4, out, nowMs() + 150), ReadStatus::TimedOut);
    EXPECT_GE(nowMs() - t0, 140);
    EXPECT_EQ(std::string(out.begin(), out.end()), "xabc");  // the byte that came is kept

    volatile sig_atomic_t stop = 1;
    EXPECT_EQ(readExactWaiting(p.server, 1, out, nowMs() + 5000, &stop), ReadStatus::Interrupted);
    ::close(p.client);
    p.client = -1;
    EXPECT_EQ(readExactWaiting(p.server, 1, out, nowMs() + 2000), ReadStatus::Closed);
}
