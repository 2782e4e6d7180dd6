// Asks Windows whether it trusts signed files, as the loader's code-integrity policies and the installer ask:
//   trust_check add-root CA.der    puts a certificate into the machine's root store
//   trust_check verify FILE...     WinVerifyTrust (the Authenticode policy) on each file, one line each
// Each file's line gives the policy's answer and the error status of the signer's certificate chain
// (CERT_TRUST_IS_UNTRUSTED_ROOT, 0x20, while the authority is not in the root store): Wine's Authenticode
// policy accepts a chain that ends in an unknown root, which Windows refuses, and the chain's status shows
// what it saw. Exit status: 0 when the certificate was added or every file is trusted, 1 when a file is not,
// 2 on bad use.
#include "platform/Win32.h"

#include <softpub.h>
#include <wincrypt.h>
#include <wintrust.h>

#include <cstdio>
#include <string>
#include <vector>

namespace
{
// wintrust.dll's functions, found at run time: the ARM64 toolchain has no import library for it.
struct WinTrust
{
    decltype(&WinVerifyTrust) verify = nullptr;
    decltype(&WTHelperProvDataFromStateData) providerData = nullptr;
    decltype(&WTHelperGetProvSignerFromChain) signer = nullptr;

    bool Load()
    {
        HMODULE module = LoadLibraryW(L"wintrust.dll");
        if (!module)
            return false;
        verify = reinterpret_cast<decltype(verify)>(
            reinterpret_cast<void*>(GetProcAddress(module, "WinVerifyTrust")));
        providerData = reinterpret_cast<decltype(providerData)>(
            reinterpret_cast<void*>(GetProcAddress(module, "WTHelperProvDataFromStateData")));
        signer = reinterpret_cast<decltype(signer)>(
            reinterpret_cast<void*>(GetProcAddress(module, "WTHelperGetProvSignerFromChain")));
        return verify && providerData && signer;
    }
};

std::wstring Widen(const char* text)
{
    int units = MultiByteToWideChar(CP_UTF8, 0, text, -1, nullptr, 0);
    if (units <= 0)
        return std::wstring();
    std::wstring wide(static_cast<size_t>(units), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text, -1, &wide[0], units);
    wide.resize(static_cast<size_t>(units - 1));
    return wide;
}

bool ReadAll(const char* path, std::vector<BYTE>& bytes)
{
    FILE* file = std::fopen(path, "rb");
    if (!file)
        return false;
    BYTE chunk[4096];
    size_t got;
    while ((got = std::fread(chunk, 1, sizeof chunk, file)) > 0)
        bytes.insert(bytes.end(), chunk, chunk + got);
    bool ok = !std::ferror(file);
    std::fclose(file);
    return ok && !bytes.empty();
}

int AddRoot(const char* path)
{
    std::vector<BYTE> der;
    if (!ReadAll(path, der))
    {
        std::fprintf(stderr, "trust_check: cannot read %s\n", path);
        return 1;
    }
    // The machine's store: adding to the user's root store asks the user first on Windows.
    HCERTSTORE store =
        CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0,
                      CERT_SYSTEM_STORE_LOCAL_MACHINE | CERT_STORE_OPEN_EXISTING_FLAG, L"Root");
    if (!store)
    {
        std::fprintf(stderr, "trust_check: cannot open the machine's root store: error %lu\n",
                     GetLastError());
        return 1;
    }
    BOOL added =
        CertAddEncodedCertificateToStore(store, X509_ASN_ENCODING, der.data(), static_cast<DWORD>(der.size()),
                                         CERT_STORE_ADD_REPLACE_EXISTING, nullptr);
    DWORD error = GetLastError();
    CertCloseStore(store, 0);
    if (!added)
    {
        std::fprintf(stderr, "trust_check: cannot add %s to the root store: error 0x%08lX\n", path, error);
        return 1;
    }
    std::printf("root certificate added: %s\n", path);
    return 0;
}

struct Verdict
{
    // ERROR_SUCCESS (0) when trusted, else an HRESULT such as TRUST_E_NOSIGNATURE, TRUST_E_BAD_DIGEST or
    // CERT_E_UNTRUSTEDROOT.
    LONG result;
    bool hasChain;
    DWORD chainErrors;
};

Verdict Verify(const WinTrust& trust, const std::wstring& path)
{
    WINTRUST_FILE_INFO file = {};
    file.cbStruct = sizeof file;
    file.pcwszFilePath = path.c_str();

    WINTRUST_DATA data = {};
    data.cbStruct = sizeof data;
    data.dwUIChoice = WTD_UI_NONE;
    // No revocation lists: the test's authority publishes none, and a test must not reach the network.
    data.fdwRevocationChecks = WTD_REVOKE_NONE;
    data.dwUnionChoice = WTD_CHOICE_FILE;
    data.pFile = &file;
    data.dwStateAction = WTD_STATEACTION_VERIFY;

    GUID action = WINTRUST_ACTION_GENERIC_VERIFY_V2;
    Verdict verdict = {trust.verify(static_cast<HWND>(INVALID_HANDLE_VALUE), &action, &data), false, 0};
    if (CRYPT_PROVIDER_DATA* provider = trust.providerData(data.hWVTStateData))
    {
        CRYPT_PROVIDER_SGNR* signer = trust.signer(provider, 0, FALSE, 0);
        if (signer && signer->pChainContext)
        {
            verdict.hasChain = true;
            verdict.chainErrors = signer->pChainContext->TrustStatus.dwErrorStatus;
        }
    }
    data.dwStateAction = WTD_STATEACTION_CLOSE;
    trust.verify(static_cast<HWND>(INVALID_HANDLE_VALUE), &action, &data);
    return verdict;
}
} // namespace

int main(int argc, char** argv)
{
    if (argc == 3 && std::string(argv[1]) == "add-root")
        return AddRoot(argv[2]);
    if (argc < 3 || std::string(argv[1]) != "verify")
    {
        std::fprintf(stderr, "usage: trust_check add-root CA.der | trust_check verify FILE...\n");
        return 2;
    }
    WinTrust trust;
    if (!trust.Load())
    {
        std::fprintf(stderr, "trust_check: wintrust.dll or its functions are missing\n");
        return 1;
    }
    int status = 0;
    for (int i = 2; i < argc; ++i)
    {
        Verdict verdict = Verify(trust, Widen(argv[i]));
        if (verdict.result == ERROR_SUCCESS)
            std::printf("%s: trusted", argv[i]);
        else
            std::printf("%s: not trusted (0x%08lX)", argv[i], static_cast<unsigned long>(verdict.result));
        if (verdict.hasChain)
            std::printf(", chain errors 0x%08lX\n", verdict.chainErrors);
        else
            std::printf(", no chain\n");
        if (verdict.result != ERROR_SUCCESS)
            status = 1;
    }
    return status;
}
