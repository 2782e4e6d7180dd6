#include "platform/host/Gdi.h"
#include "platform/host/ControlGdi.h"
#include "platform/host/Kernel.h"
#include "platform/host/Resources.h"

#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <vector>

namespace
{
struct Bitmap
{
    LONG width;
    LONG height;
    std::vector<DWORD> pixels; // 0x00RRGGBB, top row first
};

std::mutex g_lock;
std::map<int, int> g_metrics = {{SM_CXSCREEN, 1280},  {SM_CYSCREEN, 1024}, {SM_CXICON, 32},
                                {SM_CYICON, 32},      {SM_CXSMICON, 16},   {SM_CYSMICON, 16},
                                {SM_CXMENUCHECK, 15}, {SM_CYMENUCHECK, 15}};
std::map<HGDIOBJ, Bitmap*> g_bitmaps;

// Decodes a packed DIB (BITMAPINFOHEADER, palette, bits) into rows of 0x00RRGGBB.
bool Decode(const BYTE* dib, DWORD size, Bitmap& out)
{
    if (size < sizeof(BITMAPINFOHEADER))
        return false;
    BITMAPINFOHEADER header;
    std::memcpy(&header, dib, sizeof(header));
    if (header.biSize < sizeof(BITMAPINFOHEADER) || header.biSize > size || header.biWidth <= 0 ||
        header.biHeight == 0 || header.biCompression != BI_RGB || header.biWidth > 0x4000 ||
        header.biHeight > 0x4000 || header.biHeight < -0x4000)
        return false;
    WORD bits = header.biBitCount;
    if (bits != 1 && bits != 4 && bits != 8 && bits != 24 && bits != 32)
        return false;
    DWORD colours = bits <= 8 ? (header.biClrUsed ? header.biClrUsed : (1u << bits)) : 0;
    if (colours > 256)
        return false;
    size_t paletteAt = header.biSize;
    size_t bitsAt = paletteAt + 4 * colours;
    LONG height = header.biHeight < 0 ? -header.biHeight : header.biHeight;
    size_t stride = ((static_cast<size_t>(header.biWidth) * bits + 31) / 32) * 4;
    if (bitsAt > size || (size - bitsAt) / stride < static_cast<size_t>(height))
        return false;
    out.width = header.biWidth;
    out.height = height;
    out.pixels.assign(static_cast<size_t>(out.width) * static_cast<size_t>(height), 0);
    auto palette = [&](unsigned index) -> DWORD
    {
        if (index >= colours)
            return 0;
        const BYTE* entry = dib + paletteAt + 4 * index;
        return (static_cast<DWORD>(entry[2]) << 16) | (static_cast<DWORD>(entry[1]) << 8) | entry[0];
    };
    for (LONG y = 0; y < height; ++y)
    {
        LONG sourceRow = header.biHeight > 0 ? height - 1 - y : y; // bottom-up unless the height is negative
        const BYTE* row = dib + bitsAt + stride * static_cast<size_t>(sourceRow);
        for (LONG x = 0; x < out.width; ++x)
        {
            DWORD pixel;
            switch (bits)
            {
            case 32:
            case 24:
            {
                const BYTE* p = row + x * (bits / 8);
                pixel = (static_cast<DWORD>(p[2]) << 16) | (static_cast<DWORD>(p[1]) << 8) | p[0];
                break;
            }
            case 8:
                pixel = palette(row[x]);
                break;
            case 4:
                pixel = palette((row[x / 2] >> ((1 - x % 2) * 4)) & 0x0F);
                break;
            default:
                pixel = palette((row[x / 8] >> (7 - x % 8)) & 1);
                break;
            }
            out.pixels[static_cast<size_t>(y) * static_cast<size_t>(out.width) + static_cast<size_t>(x)] =
                pixel;
        }
    }
    return true;
}

// Nearest-neighbour scaling, enough for a menu glyph.
Bitmap Scale(const Bitmap& source, LONG width, LONG height)
{
    Bitmap out{width, height, std::vector<DWORD>(static_cast<size_t>(width) * static_cast<size_t>(height))};
    for (LONG y = 0; y < height; ++y)
        for (LONG x = 0; x < width; ++x)
            out.pixels[static_cast<size_t>(y * width + x)] = source.pixels[static_cast<size_t>(
                (y * source.height / height) * source.width + x * source.width / width)];
    return out;
}
} // namespace

int GetSystemMetrics(int nIndex)
{
    std::lock_guard<std::mutex> hold(g_lock);
    auto found = g_metrics.find(nIndex);
    return found == g_metrics.end() ? 0 : found->second;
}

void VmHostSetSystemMetric(int index, int value)
{
    std::lock_guard<std::mutex> hold(g_lock);
    g_metrics[index] = value;
}

HANDLE LoadImageW(HINSTANCE hInst, LPCWSTR name, UINT type, int cx, int cy, UINT fuLoad)
{
    if (type != IMAGE_BITMAP || (fuLoad & LR_LOADFROMFILE) || !name)
    {
        SetLastError(ERROR_NOT_SUPPORTED);
        return nullptr;
    }
    HRSRC found = FindResourceW(hInst, name, RT_BITMAP);
    if (!found)
        return nullptr;
    const BYTE* dib = static_cast<const BYTE*>(LockResource(LoadResource(hInst, found)));
    Bitmap decoded;
    if (!dib || !Decode(dib, SizeofResource(hInst, found), decoded))
    {
        SetLastError(ERROR_RESOURCE_DATA_NOT_FOUND);
        return nullptr;
    }
    LONG width = cx > 0 ? cx : decoded.width;
    LONG height = cy > 0 ? cy : decoded.height;
    Bitmap* made = new (std::nothrow)
        Bitmap(width == decoded.width && height == decoded.height ? decoded : Scale(decoded, width, height));
    if (!made)
    {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    std::lock_guard<std::mutex> hold(g_lock);
    g_bitmaps[made] = made;
    return made;
}

BOOL DeleteObject(HGDIOBJ ho)
{
    std::lock_guard<std::mutex> hold(g_lock);
    auto found = g_bitmaps.find(ho);
    if (found == g_bitmaps.end())
        return FALSE;
    delete found->second;
    g_bitmaps.erase(found);
    return TRUE;
}

int GetObjectW(HANDLE h, int c, LPVOID pv)
{
    std::lock_guard<std::mutex> hold(g_lock);
    auto found = g_bitmaps.find(h);
    if (found == g_bitmaps.end())
        return 0;
    if (!pv)
        return sizeof(BITMAP);
    if (c < static_cast<int>(sizeof(BITMAP)))
        return 0;
    BITMAP info{};
    info.bmWidth = found->second->width;
    info.bmHeight = found->second->height;
    info.bmWidthBytes = found->second->width * 4;
    info.bmPlanes = 1;
    info.bmBitsPixel = 32;
    std::memcpy(pv, &info, sizeof(info));
    return sizeof(BITMAP);
}

DWORD VmHostLiveGdiObjects(void)
{
    std::lock_guard<std::mutex> hold(g_lock);
    return static_cast<DWORD>(g_bitmaps.size());
}

BOOL VmHostBitmapPixels(HBITMAP bitmap, DWORD* pixels, DWORD count)
{
    std::lock_guard<std::mutex> hold(g_lock);
    auto found = g_bitmaps.find(bitmap);
    if (found == g_bitmaps.end() || !pixels || count < found->second->pixels.size())
        return FALSE;
    std::memcpy(pixels, found->second->pixels.data(), found->second->pixels.size() * sizeof(DWORD));
    return TRUE;
}
