// A library with no resources at all: where the type library has to come from a .tlb file beside it.
#ifdef _WIN32
#define BARE_EXPORT extern "C" __declspec(dllexport)
#else
#define BARE_EXPORT extern "C" __attribute__((visibility("default")))
#endif

BARE_EXPORT int VmBareLibrary()
{
    return 1;
}
