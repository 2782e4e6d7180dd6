// `ShellHost explain`: what a support engineer asks most, "why is (or isn't) Quick X in my menu?". It reads
// the marker with the extension's own code and walks the conditions that decide each item.
#include "extension/CopyMoveExtension.h"
#include "extension/MenuPlan.h"
#include "tests/support/TestComObject.h"
#include "tools/ShellHost/ShellHost.h"

#include <cstdio>

namespace
{
const char* YesNo(bool value)
{
    return value ? "yes" : "no";
}

std::string Text(const WideString& text)
{
    return Narrow(text.GetString());
}

void Because(const char* item, bool shown, const std::string& reason)
{
    std::printf("    %-22s %-4s %s\n", item, shown ? "yes" : "no", reason.c_str());
}

void PrintRecord(const DriveInfo& drive)
{
    std::printf("  key (K)              %s   (pipe \\\\.\\pipe\\QX-%s)\n", Text(drive.key).c_str(),
                Text(drive.key).c_str());
    std::printf("  copy (CI / CU)       %s / %s\n", YesNo(drive.ci), YesNo(drive.cu));
    std::printf("  move (MI)            %s\n", YesNo(drive.mi));
    std::printf("  delete (DI)          %s\n", YesNo(drive.di));
    std::printf("  default action (DA)  %d   (0 asks on a drop, 1 leaves the file manager's default, other: "
                "Quick is the default)\n",
                static_cast<int>(drive.defaultAction));
    std::printf("  mount path           %s\n", Text(drive.mountPath).c_str());
    std::printf("  top of its mount     %s\n", YesNo(drive.isRoot));
}
} // namespace

const DriveInfo* FindMarker(CVelmountCopyMoveExtension& object, LPCWSTR path, bool folder)
{
    DriveInfo* drive = nullptr;
    try
    {
        if (folder)
            drive = object.ReadDriveMarker(WideString(path));
        else
            object.FindDriveForItem(path, drive);
    }
    catch (...)
    {
        drive = nullptr;
    }
    return drive;
}

int Explain(const std::string& path)
{
    std::basic_string<WCHAR> wide = Widen(path);
    auto* object = TestSupport::TestComObject<CVelmountCopyMoveExtension>::Create();
    WCHAR sid[SID_BUFFER_CAPACITY] = {};
    DWORD use = CVelmountCopyMoveExtension::GetUserSidString(sid)
                    ? CVelmountCopyMoveExtension::ReadUseValue(VELMOUNT_EXTENSIONS_KEY, sid)
                    : 0;
    bool folder = PathIsDirectoryW(wide.c_str()) != FALSE;
    const DriveInfo* drive = FindMarker(*object, wide.c_str(), folder);
    std::printf("%s (%s)\n", path.c_str(), folder ? "folder" : "item");
    if (!drive)
    {
        std::printf("  No marker decides this %s: %s\n", folder ? "folder" : "item",
                    folder
                        ? "the folder has no readable .Velmount file, so it is not managed and its menus get "
                          "nothing from Velmount."
                        : "the item's folder has no readable .Velmount file, so it is not managed.");
        object->Release();
        return 1;
    }
    std::printf("  marker of %s\n", Text(drive->folderPath).c_str());
    PrintRecord(*drive);
    std::printf("  user's Use value     %u   (HKLM\\Software\\Morvenlith\\Velmount\\Extensions\\%s)\n",
                static_cast<unsigned>(use), Narrow(sid).c_str());

    NodeList<CustomMenuItem*> items;
    int count = ParseCustomMenuItems(drive->menuItemsText, items);
    std::printf("  service items (FMI)  %d\n", count);
    for (POSITION at = items.GetHeadPosition(); at;)
    {
        CustomMenuItem* item = items.GetNext(at);
        std::printf("      \"%s\" -> operation %d\n", Text(item->m_text).c_str(),
                    static_cast<int>(item->m_operation));
        delete item;
    }
    items.RemoveAll();

    bool copy = drive->ci || drive->cu;
    bool deleting = drive->di && use && drive->mountPath.GetLength() > 0;
    std::printf("\n  Right click on %s:\n", folder ? "this folder" : "this item");
    if (folder)
        std::printf("    %-22s %-4s %s\n", "service items", count ? "yes" : "no",
                    count ? "from this folder's own FMI" : "the marker lists none");
    Because("Velmount Quick Copy", copy,
            copy ? "CI or CU is set (and the file manager's menu holds command 1)"
                 : "neither CI nor CU is set");
    Because("Velmount Quick Move", drive->mi != 0,
            drive->mi ? "MI is set (and the file manager's menu holds command 2)" : "MI is not set");
    std::string why = !drive->di                          ? "DI is not set"
                      : !use                              ? "the user's Use value is 0 or missing"
                      : drive->mountPath.GetLength() == 0 ? "the marker gives no mount path"
                      : folder && drive->isRoot           ? "the folder is the top of its mount"
                                                          : "DI, Use and a mount path are all there";
    Because("Velmount Quick Delete", deleting && !(folder && drive->isRoot), why);
    if (folder)
    {
        std::printf("\n  Right click on this folder's background:\n");
        std::printf("    %-22s %-4s %s\n", "service items", count ? "yes" : "no",
                    count ? "from this folder's FMI" : "the marker lists none");
        std::printf("    %-22s %-4s %s\n", "Quick items", "no", "a background menu never has them");
        std::printf("\n  Drop onto this folder%s:\n",
                    use ? "" : " (nothing at all: a drop needs the user's Use value)");
        Because("Velmount Quick Copy", copy, copy ? "CI or CU is set" : "neither CI nor CU is set");
        Because("Velmount Quick Move", drive->mi != 0,
                drive->mi ? "MI is set; only for items from the same drive (key " + Text(drive->key) + ")"
                          : "MI is not set");
        std::printf("    %-22s %s\n", "chooser",
                    drive->defaultAction == 0
                        ? "asks when the drop offers only the file manager's copy (or only its move)"
                        : "never: DA is not 0");
    }
    object->Release();
    return 0;
}
