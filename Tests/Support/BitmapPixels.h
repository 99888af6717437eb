// A bitmap's pixels as Windows itself reads them.
#pragma once

#include "Common.h"

/// Of a 32-bit bitmap: top row first, blue, green, red and alpha. Which way up it is, only Windows need know.
inline std::vector<uint8_t> readPixels(HBITMAP bitmap, LONG width, LONG height) {
    std::vector<uint8_t> pixels(size_t{4} * static_cast<size_t>(width) * static_cast<size_t>(height));
    BITMAPINFO info{};
    info.bmiHeader = {sizeof info.bmiHeader, width, -height, 1, 32};
    const HDC context = CreateCompatibleDC(nullptr);
    if (GetDIBits(context, bitmap, 0, static_cast<UINT>(height), pixels.data(), &info, DIB_RGB_COLORS) !=
        height)
        pixels.clear();
    DeleteDC(context);
    return pixels;
}
