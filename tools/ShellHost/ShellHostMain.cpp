// ShellHost: the file manager's side of the context menu, from the command line. It loads the extension
// library through its exports as the COM runtime would, hands it a selection, a folder background or a drop,
// prints the menu as the user sees it, and can pick an item and answer the dialogs that follow.
#include "extension/Chooser.h"
#include "extension/CopyMoveExtension.h"
#include "extension/MenuPlan.h"
#include "tests/support/DialogAnswer.h"
#include "tests/support/MessageBoxWatch.h"
#include "tests/support/World.h"
#include "tools/ShellHost/ShellHost.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{
const char USAGE[] =
    "Usage:\n"
    "  ShellHost --library FILE|--registered [options] items PATH...  right click on items\n"
    "  ShellHost --library FILE [options] background FOLDER   right click on a folder's background\n"
    "  ShellHost --library FILE [options] drop FOLDER PATH...  right-button drop of PATH... onto FOLDER\n"
    "  ShellHost explain FOLDER|ITEM                            the marker behind a menu, item by item\n"
    "  ShellHost doctor [--json] [FOLDER|ITEM]                  every link from the registry to the service\n"
    "  (--registered: the library that the registry names for the extension's class, as COM finds it)\n"
    "Options:\n"
    "  --effect none|copy|move    the drop's Preferred DropEffect (default: none); replaces the clipboard\n"
    "  --shell copy|move|both     which of the file manager's commands (ids 1, 2) the menu holds (default "
    "both)\n"
    "  --shell-default copy|move  which of them is the menu's default (default: none)\n"
    "  --ctrl, --shift            keys held during the drop\n"
    "  --use-api                  set the user's Use value to 1 first (the host's registry lives per "
    "process)\n"
    "  --chooser velmount|explorer|cancel   answer the copy/move chooser if it appears\n"
    "  --invoke CAPTION           pick the item with this caption once the menu is shown\n"
    "  --confirm yes|no           answer the delete confirmation\n"
    "  --wait SECONDS             how long an invoked operation may run before ShellHost gives up (60)\n";

typedef HRESULT(STDMETHODCALLTYPE* CanUnloadNowEntry)();

const UINT FIRST_COMMAND_ID = 100;
const UINT LAST_COMMAND_ID = 0x7FFF;

struct Options
{
    std::string library;
    bool registered = false;
    std::string shape;
    std::string folder;
    std::vector<std::string> paths;
    DWORD effect = 0;
    bool shellCopy = true;
    bool shellMove = true;
    UINT shellDefault = 0;
    bool ctrl = false;
    bool shift = false;
    bool useApi = false;
    std::string chooser;
    std::string invoke;
    std::string confirm;
    int waitSeconds = 60;
};

int Fail(const std::string& problem)
{
    std::fprintf(stderr, "ShellHost: %s\n", problem.c_str());
    return 2;
}

// The menu the file manager has built before the handlers add theirs; returns where they insert.
UINT BuildShellMenu(HMENU menu, const Options& options)
{
    auto add = [&](UINT id, LPCWSTR text) { AppendMenuW(menu, MF_STRING, id, text); };
    UINT insertAt = 0;
    if (options.shape == "drop")
    {
        if (options.shellCopy)
            add(1, TEXT("&Copy here"));
        if (options.shellMove)
            add(2, TEXT("&Move here"));
        add(3, TEXT("Create &shortcuts here"));
        insertAt = static_cast<UINT>(GetMenuItemCount(menu));
        AppendMenuW(menu, MF_SEPARATOR, 0, nullptr);
        add(4, TEXT("Cancel"));
    }
    else if (options.shape == "items")
    {
        if (options.shellCopy)
            add(1, TEXT("&Open"));
        if (options.shellMove)
            add(2, TEXT("Open &with..."));
        insertAt = static_cast<UINT>(GetMenuItemCount(menu));
        AppendMenuW(menu, MF_SEPARATOR, 0, nullptr);
        add(5, TEXT("Cu&t"));
        add(6, TEXT("&Copy"));
        add(7, TEXT("&Delete"));
        add(8, TEXT("P&roperties"));
    }
    else
    {
        add(10, TEXT("&View"));
        add(11, TEXT("Sort &by"));
        add(12, TEXT("R&efresh"));
        insertAt = static_cast<UINT>(GetMenuItemCount(menu));
        AppendMenuW(menu, MF_SEPARATOR, 0, nullptr);
        add(13, TEXT("&Paste"));
        add(14, TEXT("P&roperties"));
    }
    if (options.shellDefault)
        SetMenuDefaultItem(menu, options.shellDefault, FALSE);
    return insertAt;
}

std::string Caption(HMENU menu, UINT position)
{
    WCHAR text[MENU_TEXT_CAPACITY] = {};
    GetMenuStringW(menu, position, text, MENU_TEXT_CAPACITY, MF_BYPOSITION);
    return Narrow(text);
}

// As the user sees it: one line per entry, separators as rules, the default in bold (and marked, for logs),
// the extension's entries with their picture.
void PrintMenu(HMENU menu, UINT firstId, UINT added)
{
    bool bold = isatty(1);
    int count = GetMenuItemCount(menu);
    bool afterSeparator = false;
    std::printf("  pos   id   entry\n");
    for (int position = 0; position < count; ++position)
    {
        MENUITEMINFOW info = {};
        info.cbSize = sizeof(info);
        info.fMask = MIIM_ID | MIIM_STATE | MIIM_FTYPE | MIIM_CHECKMARKS;
        if (!GetMenuItemInfoW(menu, static_cast<UINT>(position), TRUE, &info))
            continue;
        if (info.fType & MFT_SEPARATOR)
        {
            // The file manager draws a run of separators as one line.
            std::printf(afterSeparator ? "  %3d        (drawn as one with the line above)\n"
                                       : "  %3d        ----------------------------\n",
                        position);
            afterSeparator = true;
            continue;
        }
        afterSeparator = false;
        bool ours = info.wID >= firstId && info.wID < firstId + added;
        bool isDefault = (info.fState & MFS_DEFAULT) != 0;
        std::string text = Caption(menu, static_cast<UINT>(position));
        std::printf("  %3d  %4u  %s%s%s%s%s%s\n", position, info.wID, info.hbmpChecked ? "[V] " : "    ",
                    isDefault && bold ? "\x1b[1m" : "", text.c_str(), isDefault && bold ? "\x1b[0m" : "",
                    isDefault ? "   <- default" : "", ours ? "" : "   (file manager)");
    }
}

int FindByCaption(HMENU menu, const std::string& caption)
{
    int count = GetMenuItemCount(menu);
    for (int position = 0; position < count; ++position)
        if (Caption(menu, static_cast<UINT>(position)) == caption)
            return position;
    return -1;
}

void SetKeys(const Options& options)
{
    if (options.ctrl && options.shift)
        TestSupport::SetKeysDown({VK_RBUTTON, VK_CONTROL, VK_SHIFT});
    else if (options.ctrl)
        TestSupport::SetKeysDown({VK_RBUTTON, VK_CONTROL});
    else if (options.shift)
        TestSupport::SetKeysDown({VK_RBUTTON, VK_SHIFT});
    else
        TestSupport::SetKeysDown({VK_RBUTTON});
}

void SetUseApi()
{
    WCHAR sid[SID_BUFFER_CAPACITY] = {};
    if (CVelmountCopyMoveExtension::GetUserSidString(sid))
        TestSupport::SetUseValue(sid, 1);
}

// The library registered for the class, as COM finds it: the default value of its InprocServer32 key.
std::string RegisteredLibrary()
{
    WCHAR path[MAX_PATH * 4] = {};
    DWORD size = sizeof(path);
    if (RegGetValueW(HKEY_CLASSES_ROOT, TEXT("CLSID\\{7031db56-aef0-4a42-b4c9-bfdf2abe4765}\\InprocServer32"),
                     nullptr, RRF_RT_REG_SZ, nullptr, path, &size) != ERROR_SUCCESS)
        return std::string();
    return Narrow(path);
}

#ifdef _WIN32
// As the file manager gets a handler on Windows: CoCreateInstance by class id, so that COM reads the class's
// InprocServer32 path and ThreadingModel and loads the library itself. Returns the library COM loaded.
HMODULE CreateRegistered(const Options& options, IShellExtInit** init, HRESULT& hr)
{
    hr = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    if (FAILED(hr))
        return nullptr;
    hr = CoCreateInstance(CLSID_Extension, nullptr, CLSCTX_INPROC_SERVER, IID_IShellExtInit,
                          reinterpret_cast<void**>(init));
    if (hr != S_OK)
        return nullptr;
    // Already loaded by COM: this only adds a reference, so DllCanUnloadNow can be asked of the same copy.
    HMODULE loaded = GetModuleHandleW(Widen(options.library).c_str());
    return loaded ? LoadLibraryW(Widen(options.library).c_str()) : nullptr;
}
#endif

int Run(const Options& options)
{
    IShellExtInit* init = nullptr;
    HRESULT hr = S_OK;
    HMODULE library = nullptr;
#ifdef _WIN32
    if (options.registered)
    {
        library = CreateRegistered(options, &init, hr);
        if (hr != S_OK)
            return Fail("CoCreateInstance: " + Hex(hr));
        if (!library)
            return Fail("COM did not load the registered " + options.library);
        std::printf("CoCreateInstance: S_OK, %s loaded by COM\n", options.library.c_str());
    }
    else
#endif
        library = LoadLibraryW(Widen(options.library).c_str());
    if (!library)
        return Fail("cannot load " + options.library + " (error " + std::to_string(GetLastError()) + ")");
    auto getClassObject = Export<GetClassObjectEntry>(library, "DllGetClassObject");
    auto canUnloadNow = Export<CanUnloadNowEntry>(library, "DllCanUnloadNow");
    if (!getClassObject || !canUnloadNow)
        return Fail(options.library + " lacks DllGetClassObject or DllCanUnloadNow");

    if (options.useApi)
        SetUseApi();
    SetKeys(options);

    if (!init)
    {
        IClassFactory* factory = nullptr;
        hr = getClassObject(CLSID_Extension, IID_IClassFactory, reinterpret_cast<void**>(&factory));
        if (hr != S_OK)
            return Fail("DllGetClassObject: " + Hex(hr));
        hr = factory->CreateInstance(nullptr, IID_IShellExtInit, reinterpret_cast<void**>(&init));
        factory->Release();
        if (hr != S_OK)
            return Fail("CreateInstance: " + Hex(hr));
    }

    std::vector<WideString> paths;
    for (const std::string& path : options.paths)
        paths.push_back(WideString(Widen(path).c_str()));
    TestSupport::DropDataObject* data = nullptr;
    if (options.shape != "background")
    {
        data = TestSupport::DropDataObject::Create(paths);
        if (options.effect)
        {
            // The extension asks the data object for the drop effect only in a format that the system
            // clipboard currently offers: put it there, as a cut or copy in the file manager would.
            TestSupport::SetClipboardFormats({TEXT("Preferred DropEffect")});
            data->AddValue(TEXT("Preferred DropEffect"), options.effect);
        }
    }
    std::unique_ptr<TestSupport::ItemIdList> folder;
    if (options.shape != "items")
        folder.reset(new TestSupport::ItemIdList(Widen(options.folder).c_str()));

    hr = init->Initialize(folder ? folder->Get() : nullptr, data, nullptr);
    if (data)
        data->Release();
    std::printf("Initialize: %s\n", hr == S_OK ? "S_OK" : Hex(hr).c_str());

    IContextMenu* contextMenu = nullptr;
    init->QueryInterface(IID_IContextMenu, reinterpret_cast<void**>(&contextMenu));
    init->Release();
    HMENU menu = CreatePopupMenu();
    UINT insertAt = BuildShellMenu(menu, options);

    UINT added = 0;
    {
        std::unique_ptr<TestSupport::DialogAnswer> answer;
        if (options.chooser == "velmount")
            answer.reset(new TestSupport::DialogAnswer({TestSupport::ClickButton(IDC_USE_VELMOUNT_API)}));
        else if (options.chooser == "explorer")
            answer.reset(new TestSupport::DialogAnswer({TestSupport::ClickButton(IDC_USE_DEFAULT_EXPLORER)}));
        else if (options.chooser == "cancel")
            answer.reset(new TestSupport::DialogAnswer({TestSupport::ClickButton(IDC_CHOOSER_CANCEL)}));
        hr = contextMenu ? contextMenu->QueryContextMenu(menu, insertAt, FIRST_COMMAND_ID, LAST_COMMAND_ID, 0)
                         : E_NOINTERFACE;
        if (answer && answer->Seen().shown)
            std::printf("The chooser asked \"%s\" and was answered: %s\n",
                        Narrow(reinterpret_cast<const WCHAR*>(answer->Seen().title.c_str())).c_str(),
                        options.chooser.c_str());
    }
    if (SUCCEEDED(hr))
        added = static_cast<UINT>(hr & 0xFFFF);
    std::printf("QueryContextMenu: %u command id%s used\n", added, added == 1 ? "" : "s");
    PrintMenu(menu, FIRST_COMMAND_ID, added);

    int status = 0;
    if (!options.invoke.empty())
    {
        int position = FindByCaption(menu, options.invoke);
        UINT id = position < 0 ? 0 : GetMenuItemID(menu, position);
        if (position < 0 || id < FIRST_COMMAND_ID || id >= FIRST_COMMAND_ID + added)
        {
            status = Fail("the menu has no item \"" + options.invoke + "\" of the extension");
        }
        else
        {
            // The first message box is the delete confirmation when there is one; the rest get their default.
            TestSupport::MessageBoxWatch boxes(options.confirm.empty()    ? 0
                                               : options.confirm == "yes" ? IDYES
                                                                          : IDNO);
            CMINVOKECOMMANDINFO info = {};
            info.cbSize = sizeof(info);
            info.lpVerb = reinterpret_cast<LPCSTR>(static_cast<UINT_PTR>(id - FIRST_COMMAND_ID));
            info.nShow = SW_SHOWNORMAL;
            hr = contextMenu->InvokeCommand(&info);
            std::printf("InvokeCommand(\"%s\", verb %u): %s\n", options.invoke.c_str(), id - FIRST_COMMAND_ID,
                        hr == S_OK ? "S_OK" : Hex(hr).c_str());
            for (const TestSupport::SeenMessageBox& box : boxes.Seen())
                std::printf("Message box \"%s\": %s -> answered %s\n", box.caption.c_str(), box.text.c_str(),
                            options.confirm.empty() ? "(default)" : options.confirm.c_str());
            if (FAILED(hr))
                status = 1;
            else
                std::printf("DllCanUnloadNow after InvokeCommand: %s\n",
                            canUnloadNow() == S_OK ? "S_OK" : "S_FALSE");
        }
    }
    if (contextMenu)
        contextMenu->Release();
    DestroyMenu(menu);

    // A started operation runs on its own thread and holds the library's lock until it ends: the library
    // answers DllCanUnloadNow with S_OK only then.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(options.waitSeconds);
    while (canUnloadNow() != S_OK)
    {
        if (std::chrono::steady_clock::now() > deadline)
            return Fail("the operation still runs after " + std::to_string(options.waitSeconds) + " s");
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (!options.invoke.empty() && status == 0)
        std::printf("Operation finished; the library may unload.\n");
    FreeLibrary(library);
    return status;
}
} // namespace

// {7031DB56-AEF0-4A42-B4C9-BFDF2ABE4765}
const CLSID CLSID_Extension = {0x7031DB56, 0xAEF0, 0x4A42, {0xB4, 0xC9, 0xBF, 0xDF, 0x2A, 0xBE, 0x47, 0x65}};

std::string Hex(HRESULT hr)
{
    char text[16];
    std::snprintf(text, sizeof(text), "0x%08X", static_cast<unsigned>(hr));
    return text;
}

std::basic_string<WCHAR> Widen(const std::string& text)
{
    std::basic_string<WCHAR> wide;
    int size = text.empty() ? 0 : MultiByteToWideChar(CP_UTF8, 0, text.c_str(), -1, nullptr, 0);
    if (size > 1)
    {
        wide.resize(static_cast<size_t>(size));
        MultiByteToWideChar(CP_UTF8, 0, text.c_str(), -1, &wide[0], size);
        wide.resize(static_cast<size_t>(size - 1));
    }
    return wide;
}

std::string Narrow(const WCHAR* text)
{
    std::string narrow;
    int size = text && *text ? WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr) : 0;
    if (size > 1)
    {
        narrow.resize(static_cast<size_t>(size));
        WideCharToMultiByte(CP_UTF8, 0, text, -1, &narrow[0], size, nullptr, nullptr);
        narrow.resize(static_cast<size_t>(size - 1));
    }
    return narrow;
}

int main(int argc, char** argv)
{
    // Lines reach a pipe in order with the progress drawn on stderr.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    if (argc >= 2 && std::strcmp(argv[1], "doctor") == 0)
    {
        bool json = false;
        std::string path;
        for (int i = 2; i < argc; ++i)
        {
            std::string word = argv[i];
            if (word == "--json")
                json = true;
            else if (path.empty() && word.rfind("--", 0) != 0)
                path = word;
            else
                return Fail("doctor takes --json and one folder or item");
        }
        return Doctor(path, json);
    }
    Options options;
    std::vector<std::string> words;
    for (int i = 1; i < argc; ++i)
    {
        std::string word = argv[i];
        auto value = [&](std::string& into)
        {
            if (i + 1 >= argc)
                return false;
            into = argv[++i];
            return true;
        };
        std::string text;
        if (word == "--help" || word == "-h")
        {
            std::printf("%s", USAGE);
            return 0;
        }
        else if (word == "--library" && value(options.library))
            continue;
        else if (word == "--registered")
        {
            options.library = RegisteredLibrary();
            options.registered = true;
            if (options.library.empty())
                return Fail("the extension's class is not registered (no InprocServer32 path)");
        }
        else if (word == "--effect" && value(text))
            options.effect = text == "copy" ? 1 : text == "move" ? 2 : 0;
        else if (word == "--shell" && value(text))
        {
            options.shellCopy = text == "copy" || text == "both";
            options.shellMove = text == "move" || text == "both";
        }
        else if (word == "--shell-default" && value(text))
            options.shellDefault = text == "copy" ? 1 : text == "move" ? 2 : 0;
        else if (word == "--ctrl")
            options.ctrl = true;
        else if (word == "--shift")
            options.shift = true;
        else if (word == "--use-api")
            options.useApi = true;
        else if (word == "--chooser" && value(options.chooser))
            continue;
        else if (word == "--invoke" && value(options.invoke))
            continue;
        else if (word == "--confirm" && value(options.confirm))
            continue;
        else if (word == "--wait" && value(text))
            options.waitSeconds = std::atoi(text.c_str());
        else if (word.rfind("--", 0) == 0)
            return Fail("unknown or incomplete option " + word + " (see --help)");
        else
            words.push_back(word);
    }
    if (words.empty())
        return Fail("nothing to do (see --help)");
    options.shape = words[0];
    if (options.shape == "explain")
        return words.size() == 2 ? Explain(words[1]) : Fail("explain takes one folder or item");
    if (options.library.empty())
        return Fail("--library or --registered is required (see --help)");
    if (options.shape == "items" && words.size() >= 2)
        options.paths.assign(words.begin() + 1, words.end());
    else if (options.shape == "background" && words.size() == 2)
        options.folder = words[1];
    else if (options.shape == "drop" && words.size() >= 3)
    {
        options.folder = words[1];
        options.paths.assign(words.begin() + 2, words.end());
    }
    else
        return Fail("expected items PATH..., background FOLDER or drop FOLDER PATH... (see --help)");
    return Run(options);
}
