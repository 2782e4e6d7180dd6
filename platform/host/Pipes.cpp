#include "platform/host/Pipes.h"

#include "platform/host/ControlPipes.h"

#include "platform/host/Files.h" // GENERIC_READ, GENERIC_WRITE
#include "platform/host/HandleTable.h"
#include "platform/host/Kernel.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <memory>
#include <mutex>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <linux/sockios.h>

namespace
{
// Every message on the socket is a little-endian 32-bit length and the bytes. A length of all ones is no
// message: the server sends it from DisconnectNamedPipe, so the client then gets ERROR_PIPE_NOT_CONNECTED
// rather than the ERROR_BROKEN_PIPE of a server that simply closed its handle.
const uint32_t kDisconnectMark = 0xFFFFFFFFu;

std::string PipeDirectory()
{
    std::string directory;
    if (const char* chosen = std::getenv("VELMOUNT_PIPE_DIR"); chosen && *chosen)
        directory = chosen;
    else if (const char* runtime = std::getenv("XDG_RUNTIME_DIR"); runtime && *runtime)
        directory = std::string(runtime) + "/velmount-pipes";
    else
        directory = "/tmp/velmount-pipes-" + std::to_string(getuid());
    mkdir(directory.c_str(), 0700);
    return directory;
}

bool IsSeparator(WCHAR c)
{
    return c == u'\\' || c == u'/';
}

// Maps "\\.\pipe\NAME" to the socket's path. Pipe names are case-insensitive, so the name is folded; bytes
// outside a safe set are spelled in hex, and a name too long for sun_path is replaced by its hash.
bool SocketPathOf(LPCWSTR name, std::string& path)
{
    if (!name || !IsSeparator(name[0]) || !IsSeparator(name[1]) || name[2] != u'.' || !IsSeparator(name[3]))
        return false;
    const char16_t pipe[] = u"pipe";
    for (int i = 0; i < 4; ++i)
        if ((name[4 + i] | 0x20) != pipe[i])
            return false;
    if (!IsSeparator(name[8]) || name[9] == 0)
        return false;
    std::string encoded;
    uint64_t hash = 1469598103934665603ull;
    for (LPCWSTR c = name + 9; *c; ++c)
    {
        WCHAR unit = (*c >= u'A' && *c <= u'Z') ? static_cast<WCHAR>(*c + 32) : *c;
        hash = (hash ^ unit) * 1099511628211ull;
        if ((unit >= u'a' && unit <= u'z') || (unit >= u'0' && unit <= u'9') || unit == u'-' ||
            unit == u'_' || unit == u'.')
            encoded += static_cast<char>(unit);
        else
        {
            char hex[8];
            std::snprintf(hex, sizeof hex, "%%%04X", static_cast<unsigned>(unit));
            encoded += hex;
        }
    }
    std::string directory = PipeDirectory();
    if (directory.size() + 1 + encoded.size() >= sizeof(sockaddr_un::sun_path))
    {
        char hashed[24];
        std::snprintf(hashed, sizeof hashed, "#%016llx", static_cast<unsigned long long>(hash));
        encoded = hashed;
    }
    path = directory + "/" + encoded;
    return path.size() < sizeof(sockaddr_un::sun_path);
}

sockaddr_un AddressOf(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return address;
}

int ConnectTo(const std::string& path)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    sockaddr_un address = AddressOf(path);
    while (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
    {
        if (errno == EINTR)
            continue;
        int saved = errno;
        close(fd);
        errno = saved;
        return -1;
    }
    return fd;
}

// One socket per pipe name, shared by all instances of this process; the socket file goes with the last one.
struct Listener
{
    std::string path;
    int fd = -1;
    DWORD maxInstances = 1;
    DWORD instances = 0;
    ~Listener()
    {
        close(fd);
        unlink(path.c_str());
    }
};

// Writes that fail on purpose (ControlPipes.h): how many more, and with which error.
std::mutex g_failedWritesLock;
DWORD g_failedWrites = 0;
DWORD g_failedWriteError = 0;

DWORD TakeFailedWrite()
{
    std::lock_guard<std::mutex> guard(g_failedWritesLock);
    if (g_failedWrites == 0)
        return 0;
    --g_failedWrites;
    return g_failedWriteError;
}

std::mutex g_listenersLock;
std::map<std::string, std::weak_ptr<Listener>> g_listeners;

enum class PipeState
{
    Listening,    // server instance waiting for a client
    Connected,    // either end with a live connection
    Disconnected, // server instance after DisconnectNamedPipe
};

bool ReceiveAll(int fd, void* buffer, size_t size)
{
    auto* at = static_cast<unsigned char*>(buffer);
    while (size)
    {
        ssize_t got = recv(fd, at, size, MSG_WAITALL);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return false;
        at += got;
        size -= static_cast<size_t>(got);
    }
    return true;
}

bool SendAll(int fd, const void* header, size_t headerSize, const void* body, size_t bodySize)
{
    iovec parts[2] = {{const_cast<void*>(header), headerSize}, {const_cast<void*>(body), bodySize}};
    iovec* part = parts;
    int count = 2;
    while (count)
    {
        msghdr message{};
        message.msg_iov = part;
        message.msg_iovlen = static_cast<size_t>(count);
        ssize_t sent = sendmsg(fd, &message, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent < 0)
            return false;
        size_t done = static_cast<size_t>(sent);
        while (count && done >= part->iov_len)
        {
            done -= part->iov_len;
            ++part;
            --count;
        }
        if (count)
        {
            part->iov_base = static_cast<char*>(part->iov_base) + done;
            part->iov_len -= done;
        }
    }
    return true;
}

// A pipe keeps what its server writes, up to the buffer size it was created with, for a client that has not
// read it yet; a socket keeps what its send buffer holds, which by default is under 300 small messages, each
// charged with the kernel's own bookkeeping. A server that writes a stream of reports to a client that polls
// would block on that long before a pipe of its size would, so its end asks for at least that size (the
// kernel doubles it for the bookkeeping; without the privilege to pass the system's cap, the cap).
void ReserveSendBuffer(int fd, DWORD bytes)
{
    int current = 0;
    socklen_t length = sizeof current;
    if (bytes == 0 || getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &current, &length) != 0 ||
        static_cast<DWORD>(current) >= bytes)
        return;
    int wanted = bytes > 0x3FFFFFFF ? 0x3FFFFFFF : static_cast<int>(bytes);
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &wanted, sizeof wanted) != 0)
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &wanted, sizeof wanted);
}

class PipeEnd : public VmHost::KernelObject
{
public:
    PipeEnd(bool server, DWORD mode, DWORD access) : m_server(server), m_mode(mode), m_access(access) {}
    ~PipeEnd() override
    {
        if (m_fd >= 0)
            close(m_fd);
    }

    const bool m_server;
    std::shared_ptr<Listener> m_listener;
    std::atomic<DWORD> m_mode;
    const DWORD m_access;
    std::mutex m_lock; // state and connection
    PipeState m_state = PipeState::Listening;
    int m_fd = -1;
    std::atomic<bool> m_closing{false};
    std::mutex m_readLock;
    uint32_t m_remaining = 0; // bytes of the current message not yet delivered
    bool m_peerDisconnected = false;
    std::mutex m_writeLock;
    DWORD m_outBufferSize = 0; // the server's, as CreateNamedPipeW was given it

    // Why a read or write cannot go ahead on this end, or 0.
    DWORD NotConnectedError(int& fd)
    {
        std::lock_guard<std::mutex> guard(m_lock);
        fd = m_fd;
        if (m_state == PipeState::Listening)
            return ERROR_PIPE_LISTENING;
        if (m_state == PipeState::Disconnected || m_fd < 0)
            return ERROR_PIPE_NOT_CONNECTED;
        return 0;
    }

    BOOL Fail(DWORD error)
    {
        SetLastError(error);
        return FALSE;
    }

    BOOL Read(void* buffer, DWORD size, DWORD* transferred) override
    {
        if (!(m_access & GENERIC_READ))
            return Fail(ERROR_ACCESS_DENIED);
        int fd;
        if (DWORD error = NotConnectedError(fd))
            return Fail(error);
        std::lock_guard<std::mutex> guard(m_readLock);
        if (m_peerDisconnected)
            return Fail(ERROR_PIPE_NOT_CONNECTED);
        if (m_remaining == 0)
        {
            unsigned char header[4];
            size_t got = 0;
            if (m_mode & PIPE_NOWAIT)
            {
                // The look and the read are one call: a worker that polls pays one system call per message
                // for the header, as a blocking reader does, rather than a poll before it.
                ssize_t taken;
                do
                    taken = recv(fd, header, sizeof header, MSG_DONTWAIT);
                while (taken < 0 && errno == EINTR);
                if (taken < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
                    return Fail(ERROR_NO_DATA);
                if (taken <= 0)
                    return Fail(ERROR_BROKEN_PIPE);
                got = static_cast<size_t>(taken);
            }
            // The first byte of a message is here: the rest of it follows in the same write, so waiting for
            // it cannot block for longer than the writer takes.
            if (got < sizeof header && !ReceiveAll(fd, header + got, sizeof header - got))
                return Fail(ERROR_BROKEN_PIPE);
            uint32_t length = static_cast<uint32_t>(header[0]) | static_cast<uint32_t>(header[1]) << 8 |
                              static_cast<uint32_t>(header[2]) << 16 | static_cast<uint32_t>(header[3]) << 24;
            if (length == kDisconnectMark)
            {
                m_peerDisconnected = true;
                return Fail(ERROR_PIPE_NOT_CONNECTED);
            }
            m_remaining = length;
            if (length == 0)
                return TRUE;
        }
        DWORD part = m_remaining < size ? m_remaining : size;
        if (part && !ReceiveAll(fd, buffer, part))
        {
            m_remaining = 0;
            return Fail(ERROR_BROKEN_PIPE);
        }
        m_remaining -= part;
        *transferred = part;
        if (m_remaining && (m_mode & PIPE_READMODE_MESSAGE))
            return Fail(ERROR_MORE_DATA);
        return TRUE;
    }

    BOOL Write(const void* buffer, DWORD size, DWORD* transferred) override
    {
        if (!(m_access & GENERIC_WRITE))
            return Fail(ERROR_ACCESS_DENIED);
        if (DWORD error = TakeFailedWrite())
            return Fail(error);
        int fd;
        if (DWORD error = NotConnectedError(fd))
            return Fail(error);
        std::lock_guard<std::mutex> guard(m_writeLock);
        unsigned char header[4] = {static_cast<unsigned char>(size), static_cast<unsigned char>(size >> 8),
                                   static_cast<unsigned char>(size >> 16),
                                   static_cast<unsigned char>(size >> 24)};
        if (!SendAll(fd, header, sizeof header, buffer, size))
            return Fail(ERROR_NO_DATA); // the reader is gone: "The pipe is being closed."
        *transferred = size;
        return TRUE;
    }

    BOOL Flush() override
    {
        int fd;
        if (DWORD error = NotConnectedError(fd))
            return Fail(error);
        // Waits until the other end has read everything, as FlushFileBuffers on a pipe does.
        for (;;)
        {
            int unread = 0;
            if (ioctl(fd, SIOCOUTQ, &unread) != 0 || unread == 0 || m_closing)
                return TRUE;
            pollfd gone{fd, POLLRDHUP, 0};
            if (poll(&gone, 1, 1) > 0 && (gone.revents & (POLLRDHUP | POLLHUP | POLLERR)))
                return Fail(ERROR_BROKEN_PIPE);
        }
    }

    void OnClose() override
    {
        m_closing = true;
        std::shared_ptr<Listener> listener;
        {
            std::lock_guard<std::mutex> guard(m_lock);
            if (m_fd >= 0)
                shutdown(m_fd, SHUT_RDWR); // wakes a reader on another thread; the fd goes with the object
            listener = std::move(m_listener);
        }
        if (listener)
        {
            std::lock_guard<std::mutex> guard(g_listenersLock);
            --listener->instances;
            listener.reset(); // the last instance removes the socket file
        }
    }
};

std::shared_ptr<PipeEnd> FindPipe(HANDLE handle)
{
    std::shared_ptr<PipeEnd> pipe = VmHost::FindHandleOf<PipeEnd>(handle);
    if (!pipe)
        SetLastError(VmHost::FindHandle(handle) ? ERROR_INVALID_FUNCTION : ERROR_INVALID_HANDLE);
    return pipe;
}
} // namespace

HANDLE CreateNamedPipeW(LPCWSTR name, DWORD openMode, DWORD pipeMode, DWORD maxInstances, DWORD outBufferSize,
                        DWORD, DWORD, LPSECURITY_ATTRIBUTES)
{
    std::string path;
    if (!SocketPathOf(name, path))
    {
        SetLastError(ERROR_INVALID_NAME);
        return INVALID_HANDLE_VALUE;
    }
    if (maxInstances == 0 || maxInstances > PIPE_UNLIMITED_INSTANCES || (openMode & PIPE_ACCESS_DUPLEX) == 0)
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    std::shared_ptr<Listener> listener;
    {
        std::lock_guard<std::mutex> guard(g_listenersLock);
        listener = g_listeners[path].lock();
        if (listener)
        {
            if (openMode & FILE_FLAG_FIRST_PIPE_INSTANCE)
            {
                SetLastError(ERROR_ACCESS_DENIED);
                return INVALID_HANDLE_VALUE;
            }
            if (listener->instances >= listener->maxInstances)
            {
                SetLastError(ERROR_PIPE_BUSY);
                return INVALID_HANDLE_VALUE;
            }
        }
        else
        {
            int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
            sockaddr_un address = AddressOf(path);
            bool bound = fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
            if (fd >= 0 && !bound && errno == EADDRINUSE)
            {
                // A socket file nobody answers on is left over from a process that died: take the name over.
                int probe = ConnectTo(path);
                if (probe >= 0)
                    close(probe);
                else if (errno == ECONNREFUSED)
                {
                    unlink(path.c_str());
                    bound = bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
                }
            }
            if (!bound || listen(fd, 64) != 0)
            {
                if (fd >= 0)
                    close(fd);
                SetLastError(ERROR_ACCESS_DENIED); // another process serves this name
                return INVALID_HANDLE_VALUE;
            }
            listener = std::make_shared<Listener>();
            listener->path = path;
            listener->fd = fd;
            listener->maxInstances = maxInstances;
            g_listeners[path] = listener;
        }
        ++listener->instances;
    }
    DWORD access = ((openMode & PIPE_ACCESS_INBOUND) ? GENERIC_READ : 0) |
                   ((openMode & PIPE_ACCESS_OUTBOUND) ? GENERIC_WRITE : 0);
    auto pipe = std::make_shared<PipeEnd>(true, pipeMode & (PIPE_READMODE_MESSAGE | PIPE_NOWAIT), access);
    pipe->m_listener = std::move(listener);
    pipe->m_outBufferSize = outBufferSize;
    return VmHost::AddHandle(std::move(pipe));
}

BOOL ConnectNamedPipe(HANDLE handle, LPOVERLAPPED)
{
    std::shared_ptr<PipeEnd> pipe = FindPipe(handle);
    if (!pipe)
        return FALSE;
    std::shared_ptr<Listener> listener;
    {
        std::lock_guard<std::mutex> guard(pipe->m_lock);
        if (!pipe->m_server)
            return pipe->Fail(ERROR_INVALID_FUNCTION);
        if (pipe->m_state == PipeState::Connected)
            return pipe->Fail(ERROR_PIPE_CONNECTED);
        listener = pipe->m_listener;
    }
    if (!listener)
        return pipe->Fail(ERROR_INVALID_HANDLE);
    for (;;)
    {
        if (pipe->m_closing)
            return pipe->Fail(ERROR_OPERATION_ABORTED);
        pollfd ready{listener->fd, POLLIN, 0};
        bool nowait = pipe->m_mode & PIPE_NOWAIT;
        if (poll(&ready, 1, nowait ? 0 : 50) > 0)
        {
            int fd = accept4(listener->fd, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0)
            {
                ReserveSendBuffer(fd, pipe->m_outBufferSize);
                std::lock_guard<std::mutex> guard(pipe->m_lock);
                if (pipe->m_fd >= 0)
                    close(pipe->m_fd);
                pipe->m_fd = fd;
                pipe->m_state = PipeState::Connected;
                std::lock_guard<std::mutex> readGuard(pipe->m_readLock);
                pipe->m_remaining = 0;
                pipe->m_peerDisconnected = false;
                return TRUE;
            }
        }
        if (nowait)
            return pipe->Fail(ERROR_PIPE_LISTENING);
    }
}

BOOL DisconnectNamedPipe(HANDLE handle)
{
    std::shared_ptr<PipeEnd> pipe = FindPipe(handle);
    if (!pipe)
        return FALSE;
    std::lock_guard<std::mutex> guard(pipe->m_lock);
    if (!pipe->m_server)
        return pipe->Fail(ERROR_INVALID_FUNCTION);
    if (pipe->m_state == PipeState::Connected && pipe->m_fd >= 0)
    {
        unsigned char mark[4] = {0xFF, 0xFF, 0xFF, 0xFF};
        send(pipe->m_fd, mark, sizeof mark, MSG_NOSIGNAL | MSG_DONTWAIT);
        shutdown(pipe->m_fd, SHUT_RDWR);
    }
    pipe->m_state = PipeState::Disconnected;
    return TRUE;
}

BOOL WaitNamedPipeW(LPCWSTR name, DWORD)
{
    std::string path;
    if (!SocketPathOf(name, path))
    {
        SetLastError(ERROR_BAD_PATHNAME);
        return FALSE;
    }
    // No instance of the name at all: Windows returns at once, whatever the time-out.
    struct stat status;
    if (stat(path.c_str(), &status) != 0 || !S_ISSOCK(status.st_mode))
    {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return FALSE;
    }
    return TRUE;
}

BOOL SetNamedPipeHandleState(HANDLE handle, LPDWORD mode, LPDWORD, LPDWORD)
{
    std::shared_ptr<PipeEnd> pipe = FindPipe(handle);
    if (!pipe)
        return FALSE;
    if (mode)
    {
        if (*mode & ~static_cast<DWORD>(PIPE_READMODE_MESSAGE | PIPE_NOWAIT))
            return pipe->Fail(ERROR_INVALID_PARAMETER);
        pipe->m_mode = *mode;
    }
    return TRUE;
}

BOOL PeekNamedPipe(HANDLE handle, LPVOID buffer, DWORD bufferSize, LPDWORD bytesRead, LPDWORD totalBytesAvail,
                   LPDWORD bytesLeftThisMessage)
{
    std::shared_ptr<PipeEnd> pipe = FindPipe(handle);
    if (!pipe)
        return FALSE;
    int fd;
    if (DWORD error = pipe->NotConnectedError(fd))
        return pipe->Fail(error);
    std::lock_guard<std::mutex> guard(pipe->m_readLock);
    if (pipe->m_peerDisconnected)
        return pipe->Fail(ERROR_PIPE_NOT_CONNECTED);
    DWORD available = 0, copied = 0;
    if (pipe->m_remaining)
        available = pipe->m_remaining;
    else
    {
        pollfd ready{fd, POLLIN, 0};
        if (poll(&ready, 1, 0) > 0)
        {
            int queued = 0;
            if (ioctl(fd, FIONREAD, &queued) != 0 || queued == 0)
                return pipe->Fail(ERROR_BROKEN_PIPE);
            if (queued >= 4)
            {
                std::string head(4 + static_cast<size_t>(bufferSize < 65536 ? bufferSize : 65536), '\0');
                ssize_t got = recv(fd, head.data(), head.size(), MSG_PEEK | MSG_DONTWAIT);
                if (got >= 4)
                {
                    uint32_t length = static_cast<unsigned char>(head[0]) |
                                      static_cast<uint32_t>(static_cast<unsigned char>(head[1])) << 8 |
                                      static_cast<uint32_t>(static_cast<unsigned char>(head[2])) << 16 |
                                      static_cast<uint32_t>(static_cast<unsigned char>(head[3])) << 24;
                    if (length == kDisconnectMark)
                        return pipe->Fail(ERROR_PIPE_NOT_CONNECTED);
                    available = length;
                    if (buffer)
                    {
                        size_t body = static_cast<size_t>(got) - 4;
                        copied = static_cast<DWORD>(body < length ? body : length);
                        std::memcpy(buffer, head.data() + 4, copied);
                    }
                }
            }
        }
    }
    if (bytesRead)
        *bytesRead = copied;
    if (totalBytesAvail)
        *totalBytesAvail = available;
    if (bytesLeftThisMessage)
        *bytesLeftThisMessage = available - copied;
    return TRUE;
}

BOOL VmHostIsPipeName(LPCWSTR name)
{
    return name && IsSeparator(name[0]) && IsSeparator(name[1]) && name[2] == u'.' && IsSeparator(name[3]) &&
           (name[4] | 0x20) == u'p' && (name[5] | 0x20) == u'i' && (name[6] | 0x20) == u'p' &&
           (name[7] | 0x20) == u'e' && IsSeparator(name[8]);
}

HANDLE VmHostOpenPipeClient(LPCWSTR name, DWORD desiredAccess, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD)
{
    std::string path;
    if (!SocketPathOf(name, path))
    {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    int fd = ConnectTo(path);
    if (fd < 0)
    {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    auto pipe = std::make_shared<PipeEnd>(false, PIPE_READMODE_BYTE | PIPE_WAIT, desiredAccess);
    pipe->m_fd = fd;
    pipe->m_state = PipeState::Connected;
    return VmHost::AddHandle(std::move(pipe));
}

void VmHostFailPipeWrites(DWORD error, DWORD count)
{
    std::lock_guard<std::mutex> guard(g_failedWritesLock);
    g_failedWrites = count;
    g_failedWriteError = error;
}
