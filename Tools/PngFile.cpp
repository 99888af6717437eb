#include "PngFile.h"

#include <memory>

#include <objbase.h>
#include <wincodec.h>
#include <wrl/client.h>

using Microsoft::WRL::ComPtr;

namespace {

// PNG's rows go from the top down, a bottom-up bitmap's from the bottom up.
HRESULT writeRows(const DIBSECTION& section, IWICBitmapFrameEncode& frame) {
    const UINT stride = static_cast<UINT>(section.dsBm.bmWidthBytes);
    auto* const bits = static_cast<BYTE*>(section.dsBm.bmBits);
    HRESULT result = S_OK;
    for (LONG row = section.dsBmih.biHeight; row-- > 0 && SUCCEEDED(result);)
        result = frame.WritePixels(1, stride, stride, bits + static_cast<size_t>(row) * stride);
    return result;
}

HRESULT encode(const DIBSECTION& section, IWICImagingFactory& factory, IStream* stream) {
    ComPtr<IWICBitmapEncoder> encoder;
    ComPtr<IWICBitmapFrameEncode> frame;
    HRESULT result = factory.CreateEncoder(GUID_ContainerFormatPng, nullptr, encoder.GetAddressOf());
    if (SUCCEEDED(result))
        result = encoder->Initialize(stream, WICBitmapEncoderNoCache);
    if (SUCCEEDED(result))
        result = encoder->CreateNewFrame(frame.GetAddressOf(), nullptr);
    if (SUCCEEDED(result))
        result = frame->Initialize(nullptr);
    if (SUCCEEDED(result))
        result = frame->SetSize(static_cast<UINT>(section.dsBmih.biWidth),
                                static_cast<UINT>(section.dsBmih.biHeight));
    // The encoder answers with the format that it will really take; any other than ours would need
    // converting.
    WICPixelFormatGUID format = GUID_WICPixelFormat32bppBGRA;
    if (SUCCEEDED(result))
        result = frame->SetPixelFormat(&format);
    if (SUCCEEDED(result) && !IsEqualGUID(format, GUID_WICPixelFormat32bppBGRA))
        result = WINCODEC_ERR_UNSUPPORTEDPIXELFORMAT;
    if (SUCCEEDED(result))
        result = writeRows(section, *frame.Get());
    if (SUCCEEDED(result))
        result = frame->Commit();
    return SUCCEEDED(result) ? encoder->Commit() : result;
}

// Windows' file functions take more than 260 characters only with this prefix.
std::wstring longPath(const std::wstring& path) {
    if (path.size() < MAX_PATH || path.starts_with(L"\\\\?\\"))
        return path;
    return path.starts_with(L"\\\\") ? L"\\\\?\\UNC" + path.substr(1) : L"\\\\?\\" + path;
}

HRESULT writeFile(const std::wstring& path, const BYTE* data, DWORD size) {
    const std::wstring name = longPath(path);
    const HANDLE file =
        CreateFileW(name.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return HRESULT_FROM_WIN32(GetLastError());
    DWORD written = 0;
    HRESULT result = S_OK;
    if (!WriteFile(file, data, size, &written, nullptr))
        result = HRESULT_FROM_WIN32(GetLastError());
    else if (written != size)
        result = HRESULT_FROM_WIN32(ERROR_DISK_FULL);
    CloseHandle(file);
    if (FAILED(result))
        DeleteFileW(name.c_str());
    return result;
}

} // namespace

HRESULT writePng(const DIBSECTION& section, const std::wstring& path) {
    ComPtr<IWICImagingFactory> factory;
    ComPtr<IStream> stream;
    HRESULT result =
        CoCreateInstance(CLSID_WICImagingFactory, nullptr, CLSCTX_INPROC_SERVER, IID_IWICImagingFactory,
                         reinterpret_cast<void**>(factory.GetAddressOf()));
    if (SUCCEEDED(result))
        result = CreateStreamOnHGlobal(nullptr, TRUE, stream.GetAddressOf());
    if (SUCCEEDED(result))
        result = encode(section, *factory.Get(), stream.Get());

    // In memory first: a picture that cannot be made leaves an older one on disk alone.
    STATSTG info{};
    HGLOBAL memory = nullptr;
    if (SUCCEEDED(result))
        result = stream->Stat(&info, STATFLAG_NONAME);
    if (SUCCEEDED(result))
        result = GetHGlobalFromStream(stream.Get(), &memory);
    if (FAILED(result))
        return result;
    const auto* const data = static_cast<const BYTE*>(GlobalLock(memory));
    result = data != nullptr ? writeFile(path, data, info.cbSize.LowPart) : E_OUTOFMEMORY;
    GlobalUnlock(memory);
    return result;
}
