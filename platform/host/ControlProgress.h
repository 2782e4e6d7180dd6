// Test control of the stand-in's own progress dialog (what CoCreateInstance(CLSID_ProgressDialog) gives when
// no class object of that id is registered in the process): its calls as text lines, the status it reports,
// and how many dialogs and shell items are alive. With VELMOUNT_PROGRESS_BAR set it also draws itself on
// stderr.
#pragma once

#include "platform/host/Com.h"

#include <string>
#include <vector>

namespace VmHost
{
// One line per call, e.g. "SetOperation 7", "UpdateProgress 500 1000 4096 8192 1 2",
// "UpdateLocations E:\in\a.txt F:\out E:\in\a.txt" (a null item is "-"). GetOperationStatus is not listed.
std::vector<std::string> ProgressJournal();
void ClearProgressJournal();
// What GetOperationStatus reports from now on, in every dialog; PDOPS_RUNNING at the start.
void SetProgressStatus(PDOPSTATUS status);
long LiveProgressDialogs();
long LiveShellItems();
// The path an item of SHCreateItemFromParsingName carries, in UTF-8; empty for other objects.
std::string ShellItemPath(IShellItem* item);
} // namespace VmHost
