#include "channel/PipeClient.h"
#include "channel/PipeMessage.h"
#include "tests/channel/UniqueKey.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

typedef std::basic_string<WCHAR> Text;
typedef std::vector<BYTE> Bytes;

namespace
{
Text UniquePipeName()
{
    return TEXT("\\\\.\\pipe\\QX-") + UniqueKey(TEXT("client-test"));
}

Bytes Pattern(size_t size, BYTE first)
{
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<BYTE>(first + i);
    return bytes;
}

// The service's end, driven by hand: one blocking message-mode instance.
class ServerEnd
{
public:
    ServerEnd() : name(UniquePipeName())
    {
        m_pipe = CreateNamedPipeW(name.c_str(), PIPE_ACCESS_DUPLEX,
                                  PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT, 1, 4096, 4096, 0,
                                  nullptr);
    }
    ~ServerEnd() { Close(); }

    bool Accept() { return ConnectNamedPipe(m_pipe, nullptr) || GetLastError() == ERROR_PIPE_CONNECTED; }
    bool Send(const Bytes& bytes)
    {
        DWORD written = 0;
        return WriteFile(m_pipe, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) &&
               written == bytes.size();
    }
    Bytes Receive()
    {
        Bytes message(PIPE_MESSAGE_LIMIT);
        DWORD got = 0;
        if (!ReadFile(m_pipe, message.data(), PIPE_MESSAGE_LIMIT, &got, nullptr))
            got = 0;
        message.resize(got);
        return message;
    }
    // What was sent stays readable for the client; after it, the client reads the end.
    void Close()
    {
        if (m_pipe == INVALID_HANDLE_VALUE)
            return;
        CloseHandle(m_pipe);
        m_pipe = INVALID_HANDLE_VALUE;
    }

    const Text name;

private:
    HANDLE m_pipe = INVALID_HANDLE_VALUE;
};

const DWORD UNWRITTEN = 0xDEADBEEF;

class PipeClientTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_NE(0, m_client.Open(m_server.name.c_str()));
        ASSERT_TRUE(m_server.Accept());
    }

    // Reads until something other than "nothing waiting" happens, so the test does not depend on when the
    // server's bytes arrive; the result and the count as Read left them.
    int ReadSettled(BYTE* buffer, DWORD capacity, DWORD& count)
    {
        for (int trip = 0; trip < 500; ++trip)
        {
            count = UNWRITTEN;
            int result = m_client.Read(buffer, capacity, &count);
            if (result || count != UNWRITTEN || !m_client.IsOpen())
                return result;
            Sleep(10);
        }
        return 0;
    }

    ServerEnd m_server;
    PipeClient m_client;
};
} // namespace

TEST(PipeClientOpen, FailsWithoutAServiceAndStaysClosed)
{
    PipeClient client;
    EXPECT_EQ(0, client.IsOpen());
    EXPECT_EQ(0, client.Open(UniquePipeName().c_str()));
    EXPECT_EQ(0, client.IsOpen());
    DWORD count = UNWRITTEN;
    BYTE buffer[64];
    EXPECT_EQ(0, client.Read(buffer, sizeof buffer, &count));
    EXPECT_EQ(UNWRITTEN, count);
    EXPECT_EQ(0, client.WriteMessage(PipeMessage()));
    client.Close();
    client.Close();
    EXPECT_EQ(0, client.IsOpen());
}

TEST_F(PipeClientTest, AConnectedClientAsksNothingOfTheSystemAndWaitsForNothing)
{
    EXPECT_EQ(1, m_client.IsOpen());
    // A name that has no pipe at all: only a client that never looks it up can answer 1.
    EXPECT_EQ(1, m_client.Open(UniquePipeName().c_str()));
    EXPECT_EQ(1, m_client.IsOpen());
}

// Messages of capacity - 1, capacity and capacity + 1 bytes; after each comes a marker message, which must
// be the next thing read whole: the rest of an over-capacity message is never delivered as a message.
TEST_F(PipeClientTest, MessagesAroundTheCapacity)
{
    const DWORD capacity = 32;
    struct Row
    {
        size_t size;
        int result;
        DWORD count;
    } rows[] = {{capacity - 1, 1, capacity - 1},
                {capacity, 1, capacity},
                {capacity + 1, 0, capacity},
                {5 * capacity + 7, 0, capacity}};
    const Bytes marker = Pattern(9, 0xA0);
    for (const Row& row : rows)
    {
        Bytes message = Pattern(row.size, 1);
        ASSERT_TRUE(m_server.Send(message));
        ASSERT_TRUE(m_server.Send(marker));
        BYTE buffer[capacity + 8] = {};
        DWORD count = UNWRITTEN;
        EXPECT_EQ(row.result, ReadSettled(buffer, capacity, count)) << row.size;
        EXPECT_EQ(row.count, count) << row.size;
        EXPECT_EQ(Bytes(message.begin(), message.begin() + count), Bytes(buffer, buffer + count)) << row.size;
        EXPECT_EQ(0, buffer[capacity]) << "wrote past the capacity, size " << row.size;
        EXPECT_EQ(1, m_client.IsOpen()) << row.size;

        EXPECT_EQ(1, ReadSettled(buffer, capacity, count)) << row.size;
        EXPECT_EQ(marker, Bytes(buffer, buffer + count)) << "after a message of " << row.size;
    }
}

TEST_F(PipeClientTest, TheRestOfAnOversizeMessageIsDroppedEvenWhenNothingFollows)
{
    ASSERT_TRUE(m_server.Send(Pattern(100, 1)));
    BYTE buffer[16];
    DWORD count = 0;
    EXPECT_EQ(0, ReadSettled(buffer, sizeof buffer, count));
    EXPECT_EQ(16u, count);
    count = UNWRITTEN;
    EXPECT_EQ(0, m_client.Read(buffer, sizeof buffer, &count));
    EXPECT_EQ(UNWRITTEN, count) << "the rest was delivered as a message";
    EXPECT_EQ(1, m_client.IsOpen()) << "nothing waiting leaves the connection";
}

TEST_F(PipeClientTest, AServiceThatGoesAwayBreaksTheClient)
{
    ASSERT_TRUE(m_server.Send(Pattern(10, 1)));
    m_server.Close();
    BYTE buffer[64];
    DWORD count = 0;
    // What was sent before the end still arrives, then the end.
    EXPECT_EQ(1, ReadSettled(buffer, sizeof buffer, count));
    EXPECT_EQ(10u, count);
    EXPECT_EQ(0, ReadSettled(buffer, sizeof buffer, count));
    EXPECT_EQ(0u, count);
    EXPECT_EQ(0, m_client.IsOpen()) << "Broken: the handle is held, the connection is not good";
    EXPECT_EQ(0, m_client.WriteMessage(PipeMessage()));
    m_client.Close();
    m_client.Close();
    EXPECT_EQ(0, m_client.IsOpen());
}

TEST_F(PipeClientTest, AWriteToAGoneServiceBreaksTheClient)
{
    m_server.Close();
    EXPECT_EQ(0, m_client.WriteMessage(PipeMessage()));
    EXPECT_EQ(0, m_client.IsOpen());
}

TEST_F(PipeClientTest, WritesGoOutWholeAndInOrder)
{
    ASSERT_NE(0, SendRequest(m_client, 12, TEXT("D:\\a.txt\n"), nullptr, TEXT("e:\n"), 1, 6699));
    ASSERT_NE(0, SendCancel(m_client));
    Bytes request = m_server.Receive();
    ASSERT_EQ(76u, request.size());
    EXPECT_EQ(Bytes({0x0C, 0,   0,    0, 0, 0,   0,   0,    0, 0, 0, 0, 9, 'D', ':', '\\', 'a', '.',  't',
                     'x',  't', '\n', 0, 3, 'e', ':', '\n', 0, 1, 0, 0, 0, 0,   0,   0,    0,   0x2B, 0x1A}),
              Bytes(request.begin(), request.begin() + 38));
    Bytes cancel(64, 0);
    cancel[0] = 0x51;
    EXPECT_EQ(cancel, m_server.Receive());
    EXPECT_EQ(1, m_client.IsOpen());
}

// A message that would pass the limit is not written at all: the service never sees a cut-off message, and
// the connection itself is still good.
TEST_F(PipeClientTest, AnOverLimitMessageIsNotSentAtAll)
{
    Text huge(PIPE_MESSAGE_LIMIT - 66 + 1, TEXT('x')); // one byte more than 12 + 3 + text + 3 + 48 allows
    EXPECT_EQ(0, SendRequest(m_client, 12, huge.c_str(), nullptr, nullptr, 1, 2));
    EXPECT_EQ(1, m_client.IsOpen());
    EXPECT_NE(0, SendCancel(m_client));
    EXPECT_EQ(64u, m_server.Receive().size()) << "the first message the service gets is the cancel";
}

#ifndef _WIN32 // a real pipe cannot be made to answer a synchronous write with ERROR_IO_PENDING
#include "platform/host/ControlPipes.h"

// Only ERROR_IO_PENDING counts as written; any other failed write breaks the connection.
TEST_F(PipeClientTest, AFailedWriteBreaksTheClientUnlessItIsPending)
{
    VmHostFailPipeWrites(ERROR_IO_PENDING, 1);
    EXPECT_EQ(1, SendCancel(m_client));
    EXPECT_EQ(1, m_client.IsOpen());
    VmHostFailPipeWrites(ERROR_NO_DATA, 1);
    EXPECT_EQ(0, SendCancel(m_client));
    EXPECT_EQ(0, m_client.IsOpen());
    EXPECT_NE(0, SendCancel(m_client)) << "a Broken client still writes: only IsOpen tells";
    EXPECT_EQ(0, m_client.IsOpen());
    EXPECT_EQ(64u, m_server.Receive().size());
}
#endif
