// `ShellHost doctor`: when "the Velmount items don't show up", the links between the file manager and the
// service, checked in the order the file manager meets them. It only reads: no key, value, file or pipe
// message is written (the library is loaded, as the file manager would load it, and let go).
#include "extension/CopyMoveExtension.h"
#include "tests/support/TestComObject.h"
#include "tools/ShellHost/ShellHost.h"

#include <cstdio>
#include <vector>

namespace
{
const WCHAR CLASS_ID_TEXT[] = TEXT("{7031DB56-AEF0-4A42-B4C9-BFDF2ABE4765}");
const WCHAR APPROVED_LIST_KEY[] =
    TEXT("Software\\Microsoft\\Windows\\CurrentVersion\\Shell Extensions\\Approved");
const DWORD PIPE_WAIT_MS = 300;
const WORD MACHINE_X64 = 0x8664;
const WORD MACHINE_ARM64 = 0xAA64;

enum class Status
{
    Ok,
    Note, // holds for some menus, not for all: does not fail the check
    Fail,
    Skipped
};

struct Link
{
    std::string name;
    Status status;
    std::string detail;
};

// Where a class or handler was found: the user's classes take precedence, as in the merged HKCR.
struct Root
{
    HKEY key;
    const char* name;
};
const Root ROOTS[] = {{HKEY_CURRENT_USER, "per user"}, {HKEY_LOCAL_MACHINE, "per machine"}};
const WCHAR CLASSES[] = TEXT("Software\\Classes\\");

typedef std::basic_string<WCHAR> WText;

bool ReadString(HKEY root, const WText& path, const WCHAR* name, WText& value)
{
    WCHAR buffer[MAX_PATH * 4] = {};
    DWORD size = sizeof(buffer) - sizeof(WCHAR);
    // REG_EXPAND_SZ paths come back expanded, as REG_SZ.
    if (RegGetValueW(root, path.c_str(), name, RRF_RT_REG_SZ, nullptr, buffer, &size) != ERROR_SUCCESS)
        return false;
    value = buffer;
    return true;
}

std::string MachineName(WORD machine)
{
    switch (machine)
    {
    case MACHINE_X64:
        return "x64";
    case MACHINE_ARM64:
        return "ARM64";
    case 0x014C:
        return "x86";
    case 0x01C4:
        return "ARM";
    default:
        char text[16];
        std::snprintf(text, sizeof(text), "0x%04X", machine);
        return text;
    }
}

// The machine this program is built for.
WORD ProcessMachine()
{
#if defined(__aarch64__) || defined(_M_ARM64)
    return MACHINE_ARM64;
#else
    return MACHINE_X64;
#endif
}

typedef BOOL(WINAPI* IsWow64Process2Function)(HANDLE, USHORT*, USHORT*);

// The machine whose file manager loads the library: the native one, even for a program that is emulated.
WORD ThisMachine()
{
#ifdef _WIN32
    HMODULE kernel = GetModuleHandleW(TEXT("kernel32.dll"));
    auto isWow64Process2 = kernel ? reinterpret_cast<IsWow64Process2Function>(reinterpret_cast<void (*)()>(
                                        GetProcAddress(kernel, "IsWow64Process2")))
                                  : nullptr;
    USHORT process = 0, native = 0;
    if (isWow64Process2 && isWow64Process2(GetCurrentProcess(), &process, &native) && native)
        return native;
    SYSTEM_INFO info = {};
    GetNativeSystemInfo(&info);
    if (info.wProcessorArchitecture == PROCESSOR_ARCHITECTURE_ARM64)
        return MACHINE_ARM64;
    return MACHINE_X64;
#else
    return ProcessMachine();
#endif
}

// The machine a PE file is built for, from its headers; 0 when the file is no PE image.
WORD FileMachine(const WText& path)
{
    HANDLE file =
        CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                    nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return 0;
    unsigned char head[4096] = {};
    DWORD read = 0;
    BOOL ok = ReadFile(file, head, sizeof(head), &read, nullptr);
    CloseHandle(file);
    if (!ok || read < 0x40 || head[0] != 'M' || head[1] != 'Z')
        return 0;
    DWORD offset = head[0x3C] | head[0x3D] << 8 | head[0x3E] << 16 | static_cast<DWORD>(head[0x3F]) << 24;
    if (offset > read - 6)
        return 0;
    const unsigned char* pe = head + offset;
    if (pe[0] != 'P' || pe[1] != 'E' || pe[2] != 0 || pe[3] != 0)
        return 0;
    return static_cast<WORD>(pe[4] | pe[5] << 8);
}

class Chain
{
public:
    std::vector<Link> links;

    void Add(const std::string& name, Status status, const std::string& detail)
    {
        links.push_back({name, status, detail});
    }

    void CheckClass()
    {
        for (const Root& root : ROOTS)
        {
            WText key = WText(CLASSES) + TEXT("CLSID\\") + CLASS_ID_TEXT + TEXT("\\InprocServer32");
            if (ReadString(root.key, key, nullptr, m_library))
            {
                Add("class registered", Status::Ok,
                    std::string(root.name) + ", InprocServer32 " + Narrow(m_library.c_str()));
                m_classRoot = &root;
                return;
            }
        }
        Add("class registered", Status::Fail,
            "not registered: no InprocServer32 for " + Narrow(CLASS_ID_TEXT) +
                " per machine or per user (install the package, or regsvr32 the library)");
    }

    void CheckFile()
    {
        if (!m_classRoot)
            return Add("library file", Status::Skipped, "no registered class names one");
        if (GetFileAttributesW(m_library.c_str()) == INVALID_FILE_ATTRIBUTES)
            return Add("library file", Status::Fail, Narrow(m_library.c_str()) + " does not exist");
        WORD machine = FileMachine(m_library), native = ThisMachine();
        if (machine != native)
            return Add("library file", Status::Fail,
                       machine ? "built for " + MachineName(machine) + ", this machine's file manager is " +
                                     MachineName(native)
                               : Narrow(m_library.c_str()) + " is not a Windows library");
        m_fileUsable = true;
        m_machine = machine;
        Add("library file", Status::Ok, "exists, built for " + MachineName(machine) + " as this machine is");
    }

    void CheckThreadingModel()
    {
        if (!m_classRoot)
            return Add("ThreadingModel", Status::Skipped, "no registered class");
        WText key = WText(CLASSES) + TEXT("CLSID\\") + CLASS_ID_TEXT + TEXT("\\InprocServer32");
        WText model;
        if (!ReadString(m_classRoot->key, key, TEXT("ThreadingModel"), model))
            return Add("ThreadingModel", Status::Fail,
                       "missing: COM would load the library on the main apartment only");
        bool ok =
            lstrcmpiW(model.c_str(), TEXT("Apartment")) == 0 || lstrcmpiW(model.c_str(), TEXT("Both")) == 0;
        Add("ThreadingModel", ok ? Status::Ok : Status::Fail,
            Narrow(model.c_str()) + (ok ? "" : " (the file manager's threads need Apartment)"));
    }

    void CheckHandlers()
    {
        struct Handler
        {
            const char* name;
            const WCHAR* key;
        };
        const Handler handlers[] = {
            {"menu handler of files (*)", TEXT("*\\shellex\\ContextMenuHandlers")},
            {"menu handler of Directory", TEXT("Directory\\shellex\\ContextMenuHandlers")},
            {"menu handler of Directory\\Background",
             TEXT("Directory\\Background\\shellex\\ContextMenuHandlers")},
            {"menu handler of Folder", TEXT("Folder\\shellex\\ContextMenuHandlers")},
            {"menu handler of Drive", TEXT("Drive\\shellex\\ContextMenuHandlers")},
            {"drag-and-drop handler of Directory", TEXT("Directory\\shellex\\DragDropHandlers")},
            {"drag-and-drop handler of Folder", TEXT("Folder\\shellex\\DragDropHandlers")},
            {"drag-and-drop handler of Drive", TEXT("Drive\\shellex\\DragDropHandlers")},
        };
        for (const Handler& handler : handlers)
        {
            std::string where;
            for (const Root& root : ROOTS)
                if (where.empty() && FindHandler(root, handler.key, where))
                    where = std::string(root.name) + ", " + where;
            if (where.empty())
                Add(handler.name, Status::Fail,
                    "no handler under " + Narrow(handler.key) + " names the class");
            else
                Add(handler.name, Status::Ok, where);
        }
    }

    void CheckApproved()
    {
        WText name;
        // Value names are compared without regard to case: registration writes the class id in lower case.
        bool approved = ReadString(HKEY_LOCAL_MACHINE, APPROVED_LIST_KEY, CLASS_ID_TEXT, name);
        Add("approved list", approved ? Status::Ok : Status::Fail,
            approved ? "HKLM\\" + Narrow(APPROVED_LIST_KEY) + " lists the class"
                     : "the class is not in HKLM\\" + Narrow(APPROVED_LIST_KEY) +
                           " (where the system enforces the list, the file manager skips it)");
    }

    void CheckLoad()
    {
        if (!m_fileUsable)
            return Add("library loads", Status::Skipped, "no usable library file");
        // An emulated ShellHost (x64 on ARM64) cannot load the native library that the file manager loads.
        if (m_machine != ProcessMachine())
            return Add("library loads", Status::Skipped,
                       "this ShellHost is built for " + MachineName(ProcessMachine()) + ": the " +
                           MachineName(m_machine) + " ShellHost can load the " + MachineName(m_machine) +
                           " library");
        HMODULE library = LoadLibraryW(m_library.c_str());
        if (!library)
            return Add("library loads", Status::Fail,
                       "LoadLibrary failed (error " + std::to_string(GetLastError()) + ")");
        auto getClassObject = Export<GetClassObjectEntry>(library, "DllGetClassObject");
        IClassFactory* factory = nullptr;
        HRESULT hr = getClassObject ? getClassObject(CLSID_Extension, IID_IClassFactory,
                                                     reinterpret_cast<void**>(&factory))
                                    : E_NOTIMPL;
        if (factory)
            factory->Release();
        FreeLibrary(library);
        if (!getClassObject)
            return Add("library loads", Status::Fail, "loads, but exports no DllGetClassObject");
        Add("library loads", hr == S_OK ? Status::Ok : Status::Fail,
            hr == S_OK ? "loads; DllGetClassObject gives a class factory"
                       : "loads; DllGetClassObject answers " + Hex(hr));
    }

    void CheckUse()
    {
        WCHAR sid[SID_BUFFER_CAPACITY] = {};
        if (!CVelmountCopyMoveExtension::GetUserSidString(sid))
            return Add("user's Use value", Status::Fail, "cannot read the current user's SID");
        WText key = WText(VELMOUNT_EXTENSIONS_KEY) + TEXT("\\") + sid;
        std::string where = "HKLM\\" + Narrow(key.c_str());
        // The value as the extension reads it; then why it reads 0.
        DWORD use = CVelmountCopyMoveExtension::ReadUseValue(VELMOUNT_EXTENSIONS_KEY, sid);
        if (use)
            return Add("user's Use value", Status::Ok, std::to_string(use) + " at " + where);
        DWORD type = 0;
        bool present = RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), TEXT("Use"), RRF_RT_ANY, &type, nullptr,
                                    nullptr) == ERROR_SUCCESS;
        Add("user's Use value", Status::Note,
            std::string(!present            ? "missing"
                        : type == REG_DWORD ? "0"
                                            : "not a REG_DWORD (read as 0)") +
                " at " + where +
                ": drops onto managed folders get no Velmount items and Quick Delete is not offered "
                "(right-click Quick Copy, Quick Move and the marker's items stay)");
    }

    void CheckMarker(const std::string& path)
    {
        WText wide = Widen(path);
        if (GetFileAttributesW(wide.c_str()) == INVALID_FILE_ATTRIBUTES)
        {
            Add("marker", Status::Fail, path + " does not exist");
            return Add("service listening", Status::Skipped, "no marker names a drive key");
        }
        bool folder = PathIsDirectoryW(wide.c_str()) != FALSE;
        auto* object = TestSupport::TestComObject<CVelmountCopyMoveExtension>::Create();
        const DriveInfo* drive = FindMarker(*object, wide.c_str(), folder);
        if (!drive)
        {
            object->Release();
            Add("marker", Status::Fail,
                std::string(folder ? "the folder " : "the folder of ") + path +
                    " has no readable .Velmount file: not managed, its menus get nothing from Velmount");
            return Add("service listening", Status::Skipped, "no marker names a drive key");
        }
        WText key = drive->key.GetString();
        Add("marker", Status::Ok,
            "of " + Narrow(drive->folderPath.GetString()) + ", key " + Narrow(key.c_str()) +
                " (ShellHost explain tells item by item)");
        object->Release();
        CheckPipe(key);
    }

    void SkipMarker()
    {
        Add("marker", Status::Skipped, "no folder or item given");
        Add("service listening", Status::Skipped, "no folder or item given");
    }

private:
    WText m_library;
    const Root* m_classRoot = nullptr;
    bool m_fileUsable = false;
    WORD m_machine = 0;

    // True when a subkey of `handlers` names the class (by its default value, or by its own name).
    static bool FindHandler(const Root& root, const WCHAR* handlers, std::string& where)
    {
        HKEY key = nullptr;
        WText path = WText(CLASSES) + handlers;
        if (RegOpenKeyExW(root.key, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS)
            return false;
        bool found = false;
        WCHAR name[256];
        for (DWORD index = 0; !found; ++index)
        {
            DWORD length = 256;
            if (RegEnumKeyExW(key, index, name, &length, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
                break;
            WText value;
            found = lstrcmpiW(name, CLASS_ID_TEXT) == 0 ||
                    (ReadString(key, name, nullptr, value) && lstrcmpiW(value.c_str(), CLASS_ID_TEXT) == 0);
            if (found)
                where = Narrow(handlers) + "\\" + Narrow(name);
        }
        RegCloseKey(key);
        return found;
    }

    void CheckPipe(const WText& key)
    {
        // A key that could name another pipe (or a path) is never turned into a pipe name.
        if (key.empty() || key.find_first_of(TEXT("\\/")) != WText::npos)
            return Add("service listening", Status::Fail, "the marker's key cannot name a pipe");
        WText pipe = TEXT("\\\\.\\pipe\\QX-") + key;
        std::string name = Narrow(pipe.c_str());
        if (WaitNamedPipeW(pipe.c_str(), PIPE_WAIT_MS))
            return Add("service listening", Status::Ok, "a service listens on " + name);
        DWORD error = GetLastError();
        if (error == ERROR_SEM_TIMEOUT)
            return Add("service listening", Status::Ok,
                       "a service holds " + name + ", every instance is busy");
        Add("service listening", Status::Fail,
            "no service listening on " + name + " (error " + std::to_string(error) +
                "): the Velmount items show, but an operation cannot start");
    }
};

const char* StatusWord(Status status)
{
    switch (status)
    {
    case Status::Ok:
        return "ok";
    case Status::Note:
        return "note";
    case Status::Fail:
        return "FAIL";
    default:
        return "skipped";
    }
}

std::string Json(const std::string& text)
{
    std::string out = "\"";
    for (char c : text)
    {
        if (c == '"' || c == '\\')
            out += '\\', out += c;
        else if (static_cast<unsigned char>(c) < 0x20)
        {
            char escape[8];
            std::snprintf(escape, sizeof(escape), "\\u%04x", static_cast<unsigned>(c));
            out += escape;
        }
        else
            out += c;
    }
    return out + "\"";
}
} // namespace

int Doctor(const std::string& path, bool json)
{
    Chain doctor;
    doctor.CheckClass();
    doctor.CheckFile();
    doctor.CheckThreadingModel();
    doctor.CheckHandlers();
    doctor.CheckApproved();
    doctor.CheckLoad();
    doctor.CheckUse();
    if (path.empty())
        doctor.SkipMarker();
    else
        doctor.CheckMarker(path);

    const Link* broken = nullptr;
    for (const Link& link : doctor.links)
        if (!broken && link.status == Status::Fail)
            broken = &link;
    if (json)
    {
        std::printf("{\"ok\": %s, \"firstBroken\": %s, \"checks\": [", broken ? "false" : "true",
                    broken ? Json(broken->name).c_str() : "null");
        for (size_t i = 0; i < doctor.links.size(); ++i)
            std::printf("%s\n  {\"name\": %s, \"status\": %s, \"detail\": %s}", i ? "," : "",
                        Json(doctor.links[i].name).c_str(), Json(StatusWord(doctor.links[i].status)).c_str(),
                        Json(doctor.links[i].detail).c_str());
        std::printf("\n]}\n");
    }
    else
    {
        if (broken)
            std::printf("First broken link: %s: %s\n\n", broken->name.c_str(), broken->detail.c_str());
        else
            std::printf("Every link holds.\n\n");
        for (const Link& link : doctor.links)
            std::printf("  %-8s %-38s %s\n", StatusWord(link.status), link.name.c_str(), link.detail.c_str());
    }
    return broken ? 1 : 0;
}
