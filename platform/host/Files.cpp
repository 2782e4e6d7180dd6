#include "platform/host/Files.h"
#include "platform/host/ControlFiles.h"
#include "platform/host/HandleTable.h"
#include "platform/host/Kernel.h"
#include "platform/host/Utf8.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <mutex>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace
{
std::mutex g_driveLock;
std::string g_drives[26];

std::string DriveRoot(int index)
{
    {
        std::lock_guard<std::mutex> hold(g_driveLock);
        if (!g_drives[index].empty())
            return g_drives[index];
    }
    char name[] = "VELMOUNT_DRIVE_X";
    name[sizeof(name) - 2] = static_cast<char>('A' + index);
    const char* value = std::getenv(name);
    return value ? std::string(value) : std::string();
}

bool SameIgnoringCase(const std::string& a, const std::string& b)
{
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); ++i)
    {
        unsigned char x = static_cast<unsigned char>(a[i]), y = static_cast<unsigned char>(b[i]);
        if (x >= 'A' && x <= 'Z')
            x = static_cast<unsigned char>(x + 32);
        if (y >= 'A' && y <= 'Z')
            y = static_cast<unsigned char>(y + 32);
        if (x != y)
            return false;
    }
    return true;
}

bool Exists(const std::string& path)
{
    struct stat info;
    return lstat(path.c_str(), &info) == 0;
}

bool IsDirectory(const std::string& path)
{
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// Resolves a Windows path to a host path. On failure sets the Win32 error: ERROR_PATH_NOT_FOUND for a bad
// drive or a missing directory on the way, ERROR_INVALID_NAME for what Windows can't name.
// `lastMissing` tells whether the final component is absent (the caller decides whether that is an error).
bool Translate(LPCWSTR windowsPath, std::string& host, bool& lastMissing)
{
    lastMissing = false;
    if (!windowsPath || !windowsPath[0])
    {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return false;
    }
    std::string path = VmHost::Utf8(windowsPath);
    if (path.size() < 2 || path[1] != ':' ||
        !((path[0] >= 'a' && path[0] <= 'z') || (path[0] >= 'A' && path[0] <= 'Z')))
    {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return false;
    }
    int drive = (path[0] | 0x20) - 'a';
    std::string root = DriveRoot(drive);
    if (root.empty())
    {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return false;
    }
    std::vector<std::string> parts;
    size_t at = 2;
    while (at <= path.size())
    {
        size_t end = path.find_first_of("\\/", at);
        if (end == std::string::npos)
            end = path.size();
        std::string part = path.substr(at, end - at);
        if (part == "..")
        {
            if (!parts.empty())
                parts.pop_back();
        }
        else if (!part.empty() && part != ".")
        {
            if (part.find_first_of("<>:\"|?*") != std::string::npos)
            {
                SetLastError(ERROR_INVALID_NAME);
                return false;
            }
            parts.push_back(part);
        }
        at = end + 1;
    }
    // Mostly the path, or all of it but its name (a file yet to be made), is spelt as it is on disk: one or
    // two lookups then, instead of one per folder on the way.
    host = root;
    for (size_t i = 0; i + 1 < parts.size(); ++i)
        host += "/" + parts[i];
    size_t first = 0;
    bool nameMissingAsSpelt = false; // looked up just now, under the folder as spelt
    if (!parts.empty())
    {
        if (Exists(host + "/" + parts.back()))
        {
            host += "/" + parts.back();
            return true;
        }
        nameMissingAsSpelt = Exists(host);
        if (nameMissingAsSpelt)
            first = parts.size() - 1;
        else
            host = root;
    }
    for (size_t i = first; i < parts.size(); ++i)
    {
        std::string exact = host + "/" + parts[i];
        if (nameMissingAsSpelt || !Exists(exact))
        {
            std::string found;
            if (DIR* dir = opendir(host.c_str()))
            {
                while (dirent* entry = readdir(dir))
                {
                    if (SameIgnoringCase(entry->d_name, parts[i]))
                    {
                        found = entry->d_name;
                        break;
                    }
                }
                closedir(dir);
            }
            if (!found.empty())
                exact = host + "/" + found;
            else if (i + 1 < parts.size())
            {
                SetLastError(ERROR_PATH_NOT_FOUND);
                return false;
            }
            else
                lastMissing = true;
        }
        host = exact;
    }
    return true;
}

// As Translate, for a path whose last component must exist (ERROR_FILE_NOT_FOUND when it doesn't).
bool TranslateExisting(LPCWSTR windowsPath, std::string& host)
{
    bool missing;
    if (!Translate(windowsPath, host, missing))
        return false;
    if (missing)
    {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return false;
    }
    return true;
}

DWORD ErrorFromErrno(int error)
{
    switch (error)
    {
    case ENOENT:
        return ERROR_FILE_NOT_FOUND;
    case ENOTDIR:
        return ERROR_PATH_NOT_FOUND;
    case EACCES:
    case EPERM:
    case EISDIR:
        return ERROR_ACCESS_DENIED;
    case EEXIST:
        return ERROR_ALREADY_EXISTS;
    case ENOTEMPTY:
        return ERROR_DIR_NOT_EMPTY;
    case ENOMEM:
        return ERROR_NOT_ENOUGH_MEMORY;
    default:
        return ERROR_INVALID_FUNCTION;
    }
}

class FileObject : public VmHost::KernelObject
{
public:
    FileObject(int fd, DWORD access) : m_fd(fd), m_access(access) {}
    ~FileObject() override
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    BOOL Read(void* buffer, DWORD size, DWORD* done) override
    {
        if (done)
            *done = 0;
        if (!(m_access & (GENERIC_READ | GENERIC_ALL)) || m_fd < 0)
        {
            SetLastError(ERROR_ACCESS_DENIED);
            return FALSE;
        }
        ssize_t got;
        do
            got = ::read(m_fd, buffer, size);
        while (got < 0 && errno == EINTR);
        if (got < 0)
        {
            SetLastError(ErrorFromErrno(errno));
            return FALSE;
        }
        if (done)
            *done = static_cast<DWORD>(got);
        return TRUE;
    }
    BOOL Write(const void* buffer, DWORD size, DWORD* done) override
    {
        if (done)
            *done = 0;
        if (!(m_access & (GENERIC_WRITE | GENERIC_ALL)) || m_fd < 0)
        {
            SetLastError(ERROR_ACCESS_DENIED);
            return FALSE;
        }
        DWORD written = 0;
        while (written < size)
        {
            ssize_t put = ::write(m_fd, static_cast<const char*>(buffer) + written, size - written);
            if (put < 0 && errno == EINTR)
                continue;
            if (put < 0)
            {
                SetLastError(ErrorFromErrno(errno));
                if (done)
                    *done = written;
                return FALSE;
            }
            written += static_cast<DWORD>(put);
        }
        if (done)
            *done = written;
        return TRUE;
    }

private:
    int m_fd;
    DWORD m_access;
};

// A directory opened with FILE_FLAG_BACKUP_SEMANTICS: a handle that can only be closed.
class DirectoryObject : public VmHost::KernelObject
{
};

} // namespace

// The pipe area lives in the same library; weak references keep this file linkable on its own.
extern "C" BOOL VmHostIsPipeName(LPCWSTR name) __attribute__((weak));
extern "C" HANDLE VmHostOpenPipeClient(LPCWSTR name, DWORD desiredAccess, DWORD shareMode,
                                       LPSECURITY_ATTRIBUTES securityAttributes, DWORD creationDisposition,
                                       DWORD flagsAndAttributes) __attribute__((weak));

void VmHostMapDrive(WCHAR letter, const char* hostDirectory)
{
    int index = (letter | 0x20) - 'a';
    if (index < 0 || index >= 26)
        return;
    std::lock_guard<std::mutex> hold(g_driveLock);
    g_drives[index] = hostDirectory ? hostDirectory : "";
}

BOOL VmHostTranslatePath(LPCWSTR windowsPath, char* hostPath, DWORD hostPathSize)
{
    std::string host;
    bool missing;
    if (!Translate(windowsPath, host, missing) || host.size() + 1 > hostPathSize)
    {
        if (hostPath && hostPathSize)
            hostPath[0] = 0;
        return FALSE;
    }
    std::memcpy(hostPath, host.c_str(), host.size() + 1);
    return TRUE;
}

HANDLE CreateFileW(LPCWSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                   LPSECURITY_ATTRIBUTES lpSecurityAttributes, DWORD dwCreationDisposition,
                   DWORD dwFlagsAndAttributes, HANDLE)
{
    if (!lpFileName)
    {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    if (VmHostIsPipeName && VmHostIsPipeName(lpFileName))
    {
        if (VmHostOpenPipeClient)
            return VmHostOpenPipeClient(lpFileName, dwDesiredAccess, dwShareMode, lpSecurityAttributes,
                                        dwCreationDisposition, dwFlagsAndAttributes);
        SetLastError(ERROR_FILE_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    if (dwCreationDisposition < CREATE_NEW || dwCreationDisposition > TRUNCATE_EXISTING)
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    std::string host;
    bool missing;
    if (!Translate(lpFileName, host, missing))
        return INVALID_HANDLE_VALUE;
    if (!missing && IsDirectory(host))
    {
        if (!(dwFlagsAndAttributes & FILE_FLAG_BACKUP_SEMANTICS) || dwCreationDisposition != OPEN_EXISTING)
        {
            SetLastError(ERROR_ACCESS_DENIED);
            return INVALID_HANDLE_VALUE;
        }
        return VmHost::AddHandle(std::make_shared<DirectoryObject>());
    }
    int flags = 0;
    bool reads = dwDesiredAccess & (GENERIC_READ | GENERIC_ALL);
    bool writes = dwDesiredAccess & (GENERIC_WRITE | GENERIC_ALL);
    flags = reads && writes ? O_RDWR : writes ? O_WRONLY : O_RDONLY;
    switch (dwCreationDisposition)
    {
    case CREATE_NEW:
        if (!missing)
        {
            SetLastError(ERROR_FILE_EXISTS);
            return INVALID_HANDLE_VALUE;
        }
        flags |= O_CREAT | O_EXCL;
        break;
    case CREATE_ALWAYS:
        flags |= O_CREAT | O_TRUNC;
        break;
    case OPEN_EXISTING:
        break;
    case OPEN_ALWAYS:
        flags |= O_CREAT;
        break;
    case TRUNCATE_EXISTING:
        if (!writes)
        {
            SetLastError(ERROR_INVALID_PARAMETER);
            return INVALID_HANDLE_VALUE;
        }
        flags |= O_TRUNC;
        break;
    }
    if (missing && (dwCreationDisposition == OPEN_EXISTING || dwCreationDisposition == TRUNCATE_EXISTING))
    {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    if ((flags & O_TRUNC) && !writes)
        flags = (flags & ~O_RDONLY) | O_RDWR;
    int fd = ::open(host.c_str(), flags | O_CLOEXEC, 0644);
    if (fd < 0)
    {
        SetLastError(ErrorFromErrno(errno));
        return INVALID_HANDLE_VALUE;
    }
    HANDLE handle = VmHost::AddHandle(std::make_shared<FileObject>(fd, dwDesiredAccess));
    // Windows reports an existing file that CREATE_ALWAYS or OPEN_ALWAYS found through the last error.
    bool reportExisting =
        !missing && (dwCreationDisposition == CREATE_ALWAYS || dwCreationDisposition == OPEN_ALWAYS);
    SetLastError(reportExisting ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
    return handle;
}

DWORD GetFileAttributesW(LPCWSTR lpFileName)
{
    std::string host;
    bool missing;
    if (!Translate(lpFileName, host, missing))
        return INVALID_FILE_ATTRIBUTES;
    struct stat info;
    if (missing || stat(host.c_str(), &info) != 0)
    {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return INVALID_FILE_ATTRIBUTES;
    }
    DWORD attributes = S_ISDIR(info.st_mode) ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_ARCHIVE;
    if (!(info.st_mode & S_IWUSR))
        attributes |= FILE_ATTRIBUTE_READONLY;
    return attributes;
}

BOOL CreateDirectoryW(LPCWSTR lpPathName, LPSECURITY_ATTRIBUTES)
{
    std::string host;
    bool missing;
    if (!Translate(lpPathName, host, missing))
        return FALSE;
    if (!missing)
    {
        SetLastError(ERROR_ALREADY_EXISTS);
        return FALSE;
    }
    if (::mkdir(host.c_str(), 0755) != 0)
    {
        SetLastError(ErrorFromErrno(errno));
        return FALSE;
    }
    return TRUE;
}

BOOL RemoveDirectoryW(LPCWSTR lpPathName)
{
    std::string host;
    if (!TranslateExisting(lpPathName, host))
        return FALSE;
    if (::rmdir(host.c_str()) != 0)
    {
        SetLastError(errno == ENOTDIR ? ERROR_DIRECTORY : ErrorFromErrno(errno));
        return FALSE;
    }
    return TRUE;
}

BOOL DeleteFileW(LPCWSTR lpFileName)
{
    std::string host;
    if (!TranslateExisting(lpFileName, host))
        return FALSE;
    if (IsDirectory(host))
    {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    if (::unlink(host.c_str()) != 0)
    {
        SetLastError(ErrorFromErrno(errno));
        return FALSE;
    }
    return TRUE;
}

BOOL PathFileExistsW(LPCWSTR pszPath)
{
    if (!pszPath)
        return FALSE;
    return GetFileAttributesW(pszPath) != INVALID_FILE_ATTRIBUTES;
}

BOOL PathIsDirectoryW(LPCWSTR pszPath)
{
    if (!pszPath)
        return FALSE;
    DWORD attributes = GetFileAttributesW(pszPath);
    if (attributes == INVALID_FILE_ATTRIBUTES)
        return FALSE;
    return static_cast<BOOL>(attributes & FILE_ATTRIBUTE_DIRECTORY);
}
