// The guard as a shell loads it, in a folder of its own with the worker and a handler that does what a clip's
// name says. Afterwards no worker may be left.
#pragma once

#include "BuiltFile.h"
#include "GdiObjects.h"
#include "GuardWorkers.h"
#include "HandlerHost.h"
#include "Result.h"
#include "StandIn.h"
#include "TemporaryFolder.h"

class GuardTest : public testing::Test {
protected:
    void SetUp() override {
        install(L"bin", L"Clipforge_Guard.dll");
        install(L"bin", workerName);
        install(L"guard-tests", L"Clipforge_Thumbnails.dll");
        m_gdiObjects = countGdiObjects();
        load();
    }
    void TearDown() override {
        m_library.reset();
        EXPECT_TRUE(workersBecome(0));
        EXPECT_EQ(m_gdiObjects, countGdiObjects());
    }
    std::filesystem::path inside(const std::wstring& name) const {
        return (m_folder.path() / name).make_preferred();
    }
    void install(const wchar_t* from, const wchar_t* name) {
        std::filesystem::copy_file(builtFile(std::filesystem::path(from) / name), inside(name),
                                   std::filesystem::copy_options::overwrite_existing);
    }
    void load() {
        m_library = std::make_unique<HandlerLibrary>();
        ASSERT_EQ(S_OK, m_library->load(inside(L"Clipforge_Guard.dll")));
    }
    /// The clip need not exist: the handler looks at its name alone.
    ThumbnailAnswer ask(const std::wstring& clip, UINT size = 64) const {
        ThumbnailAnswer answer = askForThumbnail(inside(clip), size, m_library.get());
        EXPECT_EQ(answer.result == S_OK, answer.bitmap.get() != nullptr);
        return answer;
    }
    HRESULT resultOf(const std::wstring& clip) const { return ask(clip).result; }
    void expectPicture(UINT size = 64) const {
        const ThumbnailAnswer answer = ask(L"good", size);
        ASSERT_EQ(Result{S_OK}, Result{answer.result});
        EXPECT_EQ(WTSAT_RGB, answer.alpha);
        DIBSECTION section = {};
        ASSERT_TRUE(isThumbnailBitmap(answer.bitmap.get(), section));
        ASSERT_EQ(std::pair(size, size / 2), std::pair(static_cast<UINT>(section.dsBmih.biWidth),
                                                       static_cast<UINT>(section.dsBmih.biHeight)));
        for (uint32_t i = 0; i < size * (size / 2) * 4; ++i)
            ASSERT_EQ(standInByte(size, i), static_cast<const uint8_t*>(section.dsBm.bmBits)[i]) << i;
    }

    StandInRegistry m_registry;
    TemporaryFolder m_folder;
    std::unique_ptr<HandlerLibrary> m_library;

private:
    uint32_t m_gdiObjects = 0;
};
