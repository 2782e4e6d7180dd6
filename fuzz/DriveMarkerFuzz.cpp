// Marker files of any content, as a foreign drive could carry them. The parser is checked against a plain
// model of the grammar, and the whole read (file, cut at 8192 bytes or the first U+0000, parse, completion,
// cache) runs on a real file of the stand-in's drive V. A marker may make completion raise, never crash,
// leak or give a record that disagrees with the file.
//
// Input: byte 0 chooses the folder and whether a target drive is already known; the rest is the file.
#include "extension/CopyMoveExtension.h"
#include "fuzz/FuzzText.h"
#include "platform/host/ControlFiles.h"
#include "tests/support/TestComObject.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
using FuzzText::Check;
using FuzzText::Text;

Text Of(const WideString& s)
{
    return Text(s.GetString(), s.GetLength());
}

Text Lower(Text text)
{
    for (auto& c : text)
        if (c >= TEXT('A') && c <= TEXT('Z'))
            c = static_cast<WCHAR>(c + 32);
    return text;
}

struct Expected
{
    Text key, relativeMarkerPath, menuItemsText, defaultActionText;
    bool hasDefaultAction = false;
    LONG ci = 0, cu = 0, mi = 0, di = 0;
};

Expected Model(const Text& text)
{
    Expected e;
    for (const auto& [key, value] : FuzzText::KeyValueTokens(text, TEXT('|')))
    {
        bool flag = value[0] == TEXT('T');
        if (key == TEXT("K"))
            e.key = value;
        else if (key == TEXT("CI"))
            e.ci |= flag;
        else if (key == TEXT("CU"))
            e.cu |= flag;
        else if (key == TEXT("MI"))
            e.mi |= flag;
        else if (key == TEXT("DI"))
            e.di |= flag;
        else if (key == TEXT("DA"))
            e.defaultActionText = value, e.hasDefaultAction = true;
        else if (key == TEXT("RM"))
            e.relativeMarkerPath = Lower(value);
        else if (key == TEXT("FMI"))
            e.menuItemsText = value;
    }
    return e;
}

void CheckRecord(const DriveInfo& record, const Expected& e)
{
    Check(Of(record.key) == e.key);
    Check(record.ci == e.ci && record.cu == e.cu && record.mi == e.mi && record.di == e.di);
    Check(record.defaultAction == (e.hasDefaultAction ? _wtoi(e.defaultActionText.c_str()) : 0));
    Check(Of(record.relativeMarkerPath) == e.relativeMarkerPath);
    Check(Of(record.menuItemsText) == e.menuItemsText);
}

// Drive V stands on a fresh host folder for the life of the process, in memory where there is a tmpfs: one
// file rewritten a million times on a journalling disk costs a flush each time.
std::string g_driveFolder;

void RemoveDriveFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(g_driveFolder, ignored);
}

const std::string& DriveFolder()
{
    if (g_driveFolder.empty())
    {
        const char* base = std::getenv("TMPDIR");
        std::error_code missing;
        std::string pattern = std::filesystem::is_directory("/dev/shm", missing) ? "/dev/shm"
                              : base && *base                                    ? base
                                                                                 : "/tmp";
        pattern += "/velmount-fuzz-XXXXXX";
        Check(mkdtemp(&pattern[0]) != nullptr);
        g_driveFolder = pattern;
        std::atexit(RemoveDriveFolder);
        Check(mkdir((pattern + "/F").c_str(), 0700) == 0);
        VmHostMapDrive(TEXT('V'), pattern.c_str());
    }
    return g_driveFolder;
}

void WriteHostFile(const std::string& path, const uint8_t* data, size_t size)
{
    FILE* file = std::fopen(path.c_str(), "wb");
    Check(file != nullptr);
    Check(std::fwrite(data, 1, size, file) == size);
    std::fclose(file);
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    const bool atRoot = data[0] & 1, withTarget = data[0] & 2;
    const uint8_t* file = data + 1;
    const size_t fileSize = size - 1;

    // The text as ReadDriveMarker takes it: the first 8192 bytes, up to the first U+0000.
    const Text text = FuzzText::Units(file, fileSize, DRIVE_MARKER_READ_BYTES);
    const Expected expected = Model(text);

    std::unique_ptr<DriveInfo> parsed(ParseDriveMarker(TEXT("v:\\f"), WideString(text.c_str(), text.size())));
    CheckRecord(*parsed, expected);
    Check(parsed->folderPath == TEXT("v:\\f") && parsed->mountPath.IsEmpty() && parsed->isRoot == 0);

    const std::string& folder = DriveFolder();
    WriteHostFile(folder + (atRoot ? "/.Velmount" : "/F/.Velmount"), file, fileSize);

    auto* object = TestSupport::TestComObject<CVelmountCopyMoveExtension>::Create();
    // A known target of key "k": a marker with another key must come back as read, uncompleted and uncached.
    DriveInfo target;
    target.key = TEXT("k");
    if (withTarget)
        object->m_targetDrive = &target;
    const Text folderPath = atRoot ? TEXT("V:\\") : TEXT("V:\\F");
    const Text markerPath = Lower(folderPath) + TEXT("\\.velmount");
    const bool foreign = withTarget && expected.key != TEXT("k");
    try
    {
        DriveInfo* record = object->ReadDriveMarker(folderPath.c_str());
        Check(record != nullptr);
        CheckRecord(*record, expected);
        Check(Of(record->folderPath) == Lower(folderPath));
        DriveInfo* cached = nullptr;
        bool inCache = object->m_driveCache.Lookup(WideString(Lower(folderPath).c_str()), cached);
        if (foreign)
        {
            Check(!inCache && record->mountPath.IsEmpty() && record->isRoot == 0);
        }
        else
        {
            Check(inCache && cached == record);
            size_t r = expected.relativeMarkerPath.size();
            Check(Of(record->mountPath) ==
                  (r > markerPath.size() ? Text() : markerPath.substr(0, markerPath.size() - r)));
            size_t last = expected.relativeMarkerPath.rfind(TEXT('\\'));
            Check(last != Text::npos);
            Check(record->isRoot ==
                  (last == 0 || (last == 1 && expected.relativeMarkerPath[0] == TEXT('\\'))));
        }
    }
    catch (const CAtlException& e)
    {
        // Only completion raises, and only for an RM without a backslash.
        Check(static_cast<HRESULT>(e) == E_INVALIDARG);
        Check(!foreign && expected.relativeMarkerPath.find(TEXT('\\')) == Text::npos);
        DriveInfo* cached = nullptr;
        Check(!object->m_driveCache.Lookup(WideString(Lower(folderPath).c_str()), cached));
    }
    object->m_targetDrive = nullptr;
    object->Release();
    return 0;
}
