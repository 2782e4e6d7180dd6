// The type library as the library carries it (TYPELIB 1), as it is found beside a library without the
// resource, and the one class id that the GUID constant, the scripts and the type library share.
#include "module/ComModule.h"
#include "module/Registration.h"
#include "module/TypeLibrary.h"
#include "tests/module/LibraryCopy.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>

namespace
{
namespace fs = std::filesystem;

const GUID IID_IVelmountCopyMoveExtension = {
    0x52BA795F, 0xD7D2, 0x49FE, {0xAD, 0xE6, 0x80, 0xBC, 0x43, 0x40, 0xA0, 0x8C}};

std::string Text(BSTR text)
{
    return text ? Narrow(text) : "(null)";
}

std::string Documentation(ITypeLib* library, INT index)
{
    BSTR name = nullptr;
    BSTR helpFile = nullptr;
    if (FAILED(library->GetDocumentation(index, &name, nullptr, nullptr, &helpFile)))
        return "(failed)";
    std::string text = Text(name) + " / help " + Text(helpFile);
    SysFreeString(name);
    SysFreeString(helpFile);
    return text;
}

// The bytes of one resource of this program, which links the library's resources.
std::string OwnResource(WORD id, const WCHAR* type)
{
    HMODULE self = GetModuleHandleW(nullptr);
    HRSRC found = FindResourceW(self, MAKEINTRESOURCEW(id), type);
    if (!found)
        return std::string();
    auto bytes = static_cast<const char*>(LockResource(LoadResource(self, found)));
    return std::string(bytes, SizeofResource(self, found));
}

// A little-endian 32-bit word of a resource, or all ones past its end.
DWORD Word(const std::string& bytes, size_t at)
{
    DWORD word = 0xFFFFFFFF;
    if (at + 4 <= bytes.size())
        std::memcpy(&word, bytes.data() + at, 4);
    return word;
}

bool HoldsGuid(const std::string& bytes, const GUID& guid)
{
    return bytes.find(std::string(reinterpret_cast<const char*>(&guid), sizeof(guid))) != std::string::npos;
}

// Releases what LoadModuleTypeLibrary hands out.
struct Loaded
{
    BSTR path = nullptr;
    ITypeLib* library = nullptr;
    ~Loaded()
    {
        if (library)
            library->Release();
        SysFreeString(path);
    }
};

TEST(TypeLibraryTest, TheLibraryCarriesItsTypeLibrary)
{
    Loaded loaded;
    EXPECT_EQ(E_POINTER, LoadModuleTypeLibrary(TypeLibraryInstance(), nullptr, nullptr, &loaded.library));
    EXPECT_EQ(E_POINTER, LoadModuleTypeLibrary(TypeLibraryInstance(), nullptr, &loaded.path, nullptr));
    ASSERT_EQ(S_OK, LoadModuleTypeLibrary(TypeLibraryInstance(), nullptr, &loaded.path, &loaded.library));
    WCHAR self[1024] = {};
    GetModuleFileNameW(TypeLibraryInstance(), self, 1024);
    EXPECT_EQ(Narrow(self), Text(loaded.path)) << "found in the library's own file, not beside it";

    TLIBATTR* attributes = nullptr;
    ASSERT_EQ(S_OK, loaded.library->GetLibAttr(&attributes));
    EXPECT_EQ(GuidText(LIBID_VelmountShellExtension), GuidText(attributes->guid));
    EXPECT_EQ(1, attributes->wMajorVerNum);
    EXPECT_EQ(0, attributes->wMinorVerNum);
    EXPECT_EQ(0x0409u, attributes->lcid);
    EXPECT_EQ(SYS_WIN64, attributes->syskind);
    // The system adds LIBFLAG_FHASDISKIMAGE to a library it loaded from a file; the library itself has none.
    EXPECT_EQ(0, attributes->wLibFlags & ~LIBFLAG_FHASDISKIMAGE);
    loaded.library->ReleaseTLibAttr(attributes);

    EXPECT_EQ("VelmountCopyMoveHandlerLib / help (null)", Documentation(loaded.library, -1));
    ASSERT_EQ(2u, loaded.library->GetTypeInfoCount());
    TYPEKIND kind = TKIND_MAX;
    EXPECT_EQ(S_OK, loaded.library->GetTypeInfoType(0, &kind));
    EXPECT_EQ(TKIND_COCLASS, kind);
    EXPECT_EQ(S_OK, loaded.library->GetTypeInfoType(1, &kind));
    EXPECT_EQ(TKIND_DISPATCH, kind);
    EXPECT_EQ("VelmountCopyMoveExtension / help (null)", Documentation(loaded.library, 0));
    EXPECT_EQ("IVelmountCopyMoveExtension / help (null)", Documentation(loaded.library, 1));

#ifdef _WIN32
    // Type descriptions need the system's ITypeInfo, which the host's stand-in doesn't offer.
    ITypeInfo* coclass = nullptr;
    ASSERT_EQ(S_OK, loaded.library->GetTypeInfoOfGuid(CLSID_VelmountCopyMoveExtension, &coclass));
    TYPEATTR* classAttributes = nullptr;
    ASSERT_EQ(S_OK, coclass->GetTypeAttr(&classAttributes));
    EXPECT_EQ(TYPEFLAG_FCANCREATE, classAttributes->wTypeFlags);
    EXPECT_EQ(0, classAttributes->wMajorVerNum);
    EXPECT_EQ(1, classAttributes->cImplTypes);
    coclass->ReleaseTypeAttr(classAttributes);
    INT implementationFlags = 0;
    EXPECT_EQ(S_OK, coclass->GetImplTypeFlags(0, &implementationFlags));
    EXPECT_EQ(IMPLTYPEFLAG_FDEFAULT, implementationFlags);
    HREFTYPE reference = 0;
    ITypeInfo* implemented = nullptr;
    ASSERT_EQ(S_OK, coclass->GetRefTypeOfImplType(0, &reference));
    ASSERT_EQ(S_OK, coclass->GetRefTypeInfo(reference, &implemented));
    TYPEATTR* interfaceAttributes = nullptr;
    ASSERT_EQ(S_OK, implemented->GetTypeAttr(&interfaceAttributes));
    EXPECT_EQ(GuidText(IID_IVelmountCopyMoveExtension), GuidText(interfaceAttributes->guid));
    EXPECT_EQ(TKIND_DISPATCH, interfaceAttributes->typekind);
    // The stored flags are checked below in the bytes; the system may present a dual dispinterface without
    // TYPEFLAG_FOLEAUTOMATION (Wine does).
    const WORD dualDispatch = TYPEFLAG_FDISPATCHABLE | TYPEFLAG_FNONEXTENSIBLE | TYPEFLAG_FDUAL;
    EXPECT_EQ(dualDispatch, interfaceAttributes->wTypeFlags & dualDispatch);
    EXPECT_EQ(7 * sizeof(void*), interfaceAttributes->cbSizeVft) << "the seven slots of IDispatch";
    implemented->ReleaseTypeAttr(interfaceAttributes);
    implemented->Release();
    coclass->Release();
#endif
}

TEST(TypeLibraryTest, ATlbBesideALibraryWithoutTheResource)
{
    const std::string extension = fs::path(VELMOUNT_BARE_LIBRARY_FILE).extension().string();
    struct BesideCase
    {
        std::string library;  // below the copy's folder
        std::string expected; // the path that worked, from the folder on
    };
    const BesideCase cases[] = {
        {"dir.d/x.y" + extension, "x.y.tlb"},
        {"dir.d/x" + extension, "x.tlb"},
#ifndef _WIN32
        // Windows' loader puts ".dll" behind a name without a dot.
        {"dir.d/plain", "plain.tlb"},
#endif
    };
    for (const BesideCase& test : cases)
    {
        LibraryCopy bare(VELMOUNT_BARE_LIBRARY_FILE, test.library);
        ASSERT_TRUE(bare.Loaded()) << test.library;
        // Outs that the call must clear, pointing at nothing it may free.
        OLECHAR marker[] = TEXT("marker");
        BSTR missingPath = marker;
        auto missingLibrary = reinterpret_cast<ITypeLib*>(marker);
        EXPECT_TRUE(FAILED(LoadModuleTypeLibrary(bare.Module(), nullptr, &missingPath, &missingLibrary)))
            << test.library << ": neither a resource nor a file";
        EXPECT_EQ(nullptr, missingPath);
        EXPECT_EQ(nullptr, missingLibrary);

        fs::copy_file(VELMOUNT_TYPE_LIBRARY_FILE, bare.Folder() / test.expected);
        Loaded loaded;
        ASSERT_EQ(S_OK, LoadModuleTypeLibrary(bare.Module(), nullptr, &loaded.path, &loaded.library))
            << test.library;
        const std::string path = Text(loaded.path);
        const std::string folder =
            bare.Path().substr(0, bare.Path().size() - fs::path(test.library).filename().string().size());
        EXPECT_EQ(folder + test.expected, path) << test.library;
        TLIBATTR* attributes = nullptr;
        ASSERT_EQ(S_OK, loaded.library->GetLibAttr(&attributes));
        EXPECT_EQ(GuidText(LIBID_VelmountShellExtension), GuidText(attributes->guid));
        loaded.library->ReleaseTLibAttr(attributes);
    }
}

TEST(IdentifiersTest, OneClassIdInTheConstantTheScriptsAndTheTypeLibrary)
{
    const std::string classId = GuidText(CLSID_VelmountCopyMoveExtension);
    EXPECT_EQ("{7031db56-aef0-4a42-b4c9-bfdf2abe4765}", classId);

    // Every GUID that script 106 writes is the class id: the class key and the eight handler values.
    const std::string script = OwnResource(IDR_CLASS_SCRIPT, TEXT("REGISTRY"));
    ASSERT_EQ(1545u, script.size());
    int found = 0;
    for (size_t at = script.find('{'); at != std::string::npos; at = script.find('{', at + 1))
    {
        if (at + 37 < script.size() && script[at + 37] == '}')
        {
            EXPECT_EQ(classId, script.substr(at, 38));
            ++found;
        }
    }
    EXPECT_EQ(9, found);
    // Script 101 is the application id's empty root block; its only name comes in as the APPID pair.
    EXPECT_EQ(std::string("HKCR\r\n{\r\n}\r\n"), OwnResource(IDR_APPID_SCRIPT, TEXT("REGISTRY")));
    // Lines end in CR LF and nothing else.
    for (size_t at = script.find('\n'); at != std::string::npos; at = script.find('\n', at + 1))
        ASSERT_EQ('\r', script[at - 1]) << "at byte " << at;

    const std::string typeLibrary = OwnResource(1, TEXT("TYPELIB"));
    ASSERT_EQ(0, typeLibrary.compare(0, 4, "MSFT"));
    // The two type entries as stored (MSFT layout): kind in the low bits of the first word, flags in the
    // 13th. The class can be created; the interface is a dual, dispatchable, non-extensible automation
    // interface.
    ASSERT_EQ(2u, Word(typeLibrary, 0x20));
    const size_t entries = Word(typeLibrary, 0x54 + ((Word(typeLibrary, 0x14) & 0x100) ? 4 : 0) + 2 * 4);
    EXPECT_EQ(static_cast<DWORD>(TKIND_COCLASS), Word(typeLibrary, entries) & 0xF);
    EXPECT_EQ(0x02u, Word(typeLibrary, entries + 12 * 4));
    EXPECT_EQ(static_cast<DWORD>(TKIND_DISPATCH), Word(typeLibrary, entries + 0x64) & 0xF);
    EXPECT_EQ(0x11C0u, Word(typeLibrary, entries + 0x64 + 12 * 4));
    EXPECT_TRUE(HoldsGuid(typeLibrary, CLSID_VelmountCopyMoveExtension));
    EXPECT_TRUE(HoldsGuid(typeLibrary, LIBID_VelmountShellExtension));
    EXPECT_TRUE(HoldsGuid(typeLibrary, IID_IVelmountCopyMoveExtension));
}
} // namespace
