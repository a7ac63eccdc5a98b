#include "Screenshot.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>

namespace dwtest {
namespace {

// The pixels of a DC's area, read through a 32-bit top-down DIB.
std::vector<COLORREF> readPixels(HDC source, int x, int y, int width, int height) {
    std::vector<COLORREF> out(static_cast<size_t>(width) * height, 0);
    if (width <= 0 || height <= 0) return out;
    BITMAPINFO info{};
    info.bmiHeader.biSize = sizeof(info.bmiHeader);
    info.bmiHeader.biWidth = width;
    info.bmiHeader.biHeight = -height;
    info.bmiHeader.biPlanes = 1;
    info.bmiHeader.biBitCount = 32;
    info.bmiHeader.biCompression = BI_RGB;
    void* bits = nullptr;
    const HDC memory = CreateCompatibleDC(source);
    const HBITMAP bitmap = CreateDIBSection(source, &info, DIB_RGB_COLORS, &bits, nullptr, 0);
    if (memory && bitmap && bits) {
        const HGDIOBJ old = SelectObject(memory, bitmap);
        BitBlt(memory, 0, 0, width, height, source, x, y, SRCCOPY);
        GdiFlush();
        const auto* quads = static_cast<const std::uint32_t*>(bits);
        for (size_t i = 0; i < out.size(); ++i) {
            const std::uint32_t q = quads[i];  // 0x00RRGGBB
            out[i] = RGB((q >> 16) & 0xFF, (q >> 8) & 0xFF, q & 0xFF);
        }
        SelectObject(memory, old);
    }
    if (bitmap) DeleteObject(bitmap);
    if (memory) DeleteDC(memory);
    return out;
}

BYTE blendChannel(BYTE over, BYTE under, BYTE alpha) {
    return static_cast<BYTE>((over * alpha + under * (255 - alpha) + 127) / 255);
}

COLORREF blend(COLORREF over, COLORREF under, BYTE alpha) {
    return RGB(blendChannel(GetRValue(over), GetRValue(under), alpha),
               blendChannel(GetGValue(over), GetGValue(under), alpha),
               blendChannel(GetBValue(over), GetBValue(under), alpha));
}

struct WindowSearch {
    RECT area;
    std::vector<HWND> found;
};

BOOL CALLBACK collectWindow(HWND window, LPARAM param) {
    auto* search = reinterpret_cast<WindowSearch*>(param);
    DWORD pid = 0;
    GetWindowThreadProcessId(window, &pid);
    RECT r{}, common{};
    if (pid != GetCurrentProcessId() || !IsWindowVisible(window) || !GetWindowRect(window, &r) ||
        !IntersectRect(&common, &r, &search->area)) {
        return TRUE;
    }
    const bool layered = (GetWindowLongPtrW(window, GWL_EXSTYLE) & WS_EX_LAYERED) != 0;
    const HRGN region = CreateRectRgn(0, 0, 0, 0);
    const bool shaped = region && GetWindowRgn(window, region) != ERROR;
    if (region) DeleteObject(region);
    if (layered || shaped) search->found.push_back(window);
    return TRUE;
}

// This process's visible top-level windows that the X server can't show as
// Windows would, bottom to top.
std::vector<HWND> windowsToPaint(const RECT& area) {
    WindowSearch search{area, {}};
    EnumWindows(collectWindow, reinterpret_cast<LPARAM>(&search));
    std::reverse(search.found.begin(), search.found.end());
    return search.found;
}

void paintWindow(Screenshot& shot, HWND window) {
    RECT r{};
    GetWindowRect(window, &r);
    const int width = r.right - r.left, height = r.bottom - r.top;
    BYTE alpha = 255;
    COLORREF key = CLR_INVALID;
    if (GetWindowLongPtrW(window, GWL_EXSTYLE) & WS_EX_LAYERED) {
        DWORD flags = 0;
        COLORREF keyColour = 0;
        BYTE layeredAlpha = 255;
        // A window drawn with UpdateLayeredWindow has no attributes to read.
        if (!GetLayeredWindowAttributes(window, &keyColour, &layeredAlpha, &flags)) return;
        if (flags & LWA_ALPHA) alpha = layeredAlpha;
        if (flags & LWA_COLORKEY) key = keyColour;
    }
    const HDC dc = GetWindowDC(window);
    if (!dc) return;
    const std::vector<COLORREF> own = readPixels(dc, 0, 0, width, height);
    ReleaseDC(window, dc);
    HRGN region = CreateRectRgn(0, 0, 0, 0);
    if (region && GetWindowRgn(window, region) == ERROR) {
        DeleteObject(region);
        region = nullptr;
    }
    for (int y = std::max(r.top, shot.area.top); y < std::min(r.bottom, shot.area.bottom); ++y) {
        for (int x = std::max(r.left, shot.area.left); x < std::min(r.right, shot.area.right); ++x) {
            if (region && !PtInRegion(region, x - r.left, y - r.top)) continue;
            const COLORREF colour = own[static_cast<size_t>(y - r.top) * width + (x - r.left)];
            if (colour == key) continue;
            shot.set(x, y, blend(colour, shot.at(x, y), alpha));
        }
    }
    if (region) DeleteObject(region);
}

// PNG: chunks with their CRC, the image data as stored (uncompressed)
// deflate blocks in a zlib stream.
std::uint32_t crc32(const std::uint8_t* data, size_t size, std::uint32_t crc = 0) {
    static const std::vector<std::uint32_t> table = [] {
        std::vector<std::uint32_t> t(256);
        for (std::uint32_t n = 0; n < 256; ++n) {
            std::uint32_t c = n;
            for (int k = 0; k < 8; ++k) c = c & 1 ? 0xEDB88320u ^ (c >> 1) : c >> 1;
            t[n] = c;
        }
        return t;
    }();
    crc = ~crc;
    for (size_t i = 0; i < size; ++i) crc = table[(crc ^ data[i]) & 0xFF] ^ (crc >> 8);
    return ~crc;
}

void putBig32(std::vector<std::uint8_t>& out, std::uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<std::uint8_t>(v >> shift));
}

void putChunk(std::vector<std::uint8_t>& out, const char type[4], const std::vector<std::uint8_t>& data) {
    putBig32(out, static_cast<std::uint32_t>(data.size()));
    std::vector<std::uint8_t> typed(type, type + 4);
    typed.insert(typed.end(), data.begin(), data.end());
    out.insert(out.end(), typed.begin(), typed.end());
    putBig32(out, crc32(typed.data(), typed.size()));
}

}  // namespace

COLORREF Screenshot::at(int x, int y) const {
    if (!contains(x, y)) return CLR_INVALID;
    return pixels[static_cast<size_t>(y - area.top) * width() + (x - area.left)];
}

void Screenshot::set(int x, int y, COLORREF colour) {
    if (contains(x, y)) pixels[static_cast<size_t>(y - area.top) * width() + (x - area.left)] = colour;
}

Screenshot Screenshot::ofScreen(const RECT& area) {
    Screenshot shot;
    shot.area = area;
    const HDC screen = GetDC(nullptr);
    shot.pixels = readPixels(screen, area.left, area.top, shot.width(), shot.height());
    ReleaseDC(nullptr, screen);
    return shot;
}

Screenshot Screenshot::composed(const RECT& area, const Screenshot* plate) {
    Screenshot shot = ofScreen(area);
    const std::vector<HWND> windows = windowsToPaint(area);
    // What the X server shows in these windows' places is theirs, wrongly
    // shaped or opaque: what lay there before takes its place.
    if (plate) {
        for (HWND window : windows) {
            RECT r{};
            GetWindowRect(window, &r);
            for (int y = r.top; y < r.bottom; ++y) {
                for (int x = r.left; x < r.right; ++x) {
                    if (plate->contains(x, y)) shot.set(x, y, plate->at(x, y));
                }
            }
        }
    }
    for (HWND window : windows) paintWindow(shot, window);
    return shot;
}

bool Screenshot::savePng(const std::wstring& path) const {
    if (width() <= 0 || height() <= 0) return false;
    const size_t slash = path.find_last_of(L"\\/");
    if (slash != std::wstring::npos) CreateDirectoryW(path.substr(0, slash).c_str(), nullptr);

    std::vector<std::uint8_t> raw;  // each row: filter type 0, then RGB
    raw.reserve(static_cast<size_t>(height()) * (1 + 3 * width()));
    for (int y = 0; y < height(); ++y) {
        raw.push_back(0);
        for (int x = 0; x < width(); ++x) {
            const COLORREF c = pixels[static_cast<size_t>(y) * width() + x];
            raw.push_back(GetRValue(c));
            raw.push_back(GetGValue(c));
            raw.push_back(GetBValue(c));
        }
    }
    std::vector<std::uint8_t> zlib = {0x78, 0x01};
    size_t at = 0;
    bool last = false;
    while (!last) {
        const size_t n = std::min<size_t>(65535, raw.size() - at);
        last = at + n == raw.size();
        zlib.push_back(last ? 1 : 0);
        zlib.push_back(static_cast<std::uint8_t>(n));
        zlib.push_back(static_cast<std::uint8_t>(n >> 8));
        zlib.push_back(static_cast<std::uint8_t>(~n));
        zlib.push_back(static_cast<std::uint8_t>(~n >> 8));
        zlib.insert(zlib.end(), raw.begin() + static_cast<std::ptrdiff_t>(at),
                    raw.begin() + static_cast<std::ptrdiff_t>(at + n));
        at += n;
    }
    std::uint32_t a = 1, b = 0;
    for (std::uint8_t byte : raw) {
        a = (a + byte) % 65521;
        b = (b + a) % 65521;
    }
    putBig32(zlib, (b << 16) | a);

    std::vector<std::uint8_t> png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    std::vector<std::uint8_t> header;
    putBig32(header, static_cast<std::uint32_t>(width()));
    putBig32(header, static_cast<std::uint32_t>(height()));
    header.insert(header.end(), {8, 2, 0, 0, 0});  // 8 bits, RGB, deflate, no filter choice, no interlace
    putChunk(png, "IHDR", header);
    putChunk(png, "IDAT", zlib);
    putChunk(png, "IEND", {});

    FILE* file = _wfopen(path.c_str(), L"wb");
    if (!file) return false;
    const bool written = fwrite(png.data(), 1, png.size(), file) == png.size();
    return fclose(file) == 0 && written;
}

std::wstring screenshotPath(const std::wstring& name) { return L"..\\screenshots\\" + name; }

}  // namespace dwtest
