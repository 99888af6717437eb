// A worker that does not keep to the rules: how, says the file "lie" beside it.
#include <random>

#include "TemporaryFolder.h"
#include "Transport.h"

namespace {
struct Lie {
    const char* name;
    void (*tell)(
        WorkerChannel& channel); ///< after an honest answer of 64 by 32 was written, before its event
};

void scribble(WorkerChannel& channel) {
    static std::mt19937 random(GetTickCount());
    auto* const bytes = reinterpret_cast<uint8_t*>(&channel);
    for (uint32_t i = random() % 64; i > 0; --i) {
        const size_t place = random() % 2 == 0
                                 ? offsetof(WorkerChannel, answer) + random() % sizeof channel.answer
                                 : random() % (WorkerChannel::pixelsOffset + 64 * 32 * 4);
        bytes[place] = static_cast<uint8_t>(random());
    }
    channel.answer.number = channel.question.number; // so that the rest is looked at
    if (random() % 2 == 0)
        channel.answer.outcome = WorkerOutcome::answered, channel.answer.result = S_OK,
        channel.answer.alpha = random() % 3;
    channel.state = static_cast<WorkerState>(random());
}

/// From now on the size is another one at every look.
void keepChanging(WorkerChannel& channel) {
    const auto change = [](void* parameter) -> DWORD {
        for (WorkerAnswer& answer = static_cast<WorkerChannel*>(parameter)->answer;;) {
            *static_cast<volatile uint32_t*>(&answer.height) = 0x7FFFFFFF;
            *static_cast<volatile uint32_t*>(&answer.height) = 32;
        }
    };
    CreateThread(nullptr, 0, change, &channel, 0, nullptr);
}

#define SET(field, wrong) [](WorkerChannel& channel) { channel.field = wrong; }
constexpr Lie lies[] = {
    {"no answer", SET(answer.number, 0)},
    {"outcome", SET(answer.outcome, static_cast<WorkerOutcome>(5))},
    {"not asked", SET(answer.outcome, WorkerOutcome::clipUnchanged)},
    {"success without a picture", SET(answer.result, S_FALSE)},
    {"alpha", SET(answer.alpha, 3)},
    {"no rows", SET(answer.height, 0)},
    {"no columns", SET(answer.width, 0)},
    {"too many rows", SET(answer.height, 0x80000000)},
    {"more than the section",
     [](WorkerChannel& channel) { channel.answer.width = channel.answer.height = 11600; }},
    {"0 bytes in 32 bits",
     [](WorkerChannel& channel) { channel.answer.width = channel.answer.height = 65536; }},
    {"never committed", SET(answer.height, 50000)},
    {"scribbles", scribble},
    {"keeps changing", keepChanging},
    {"honest", [](WorkerChannel&) {}},
};

WorkerChannel* map(const WorkerHandles& handles) {
    return static_cast<WorkerChannel*>(
        MapViewOfFile(handles.section, FILE_MAP_READ | FILE_MAP_WRITE, 0, 0, 0));
}
} // namespace

int WINAPI wWinMain(HINSTANCE, HINSTANCE, LPWSTR arguments, int) {
    wchar_t program[MAX_PATH];
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    const std::string chosen = readFileBytes(std::filesystem::path(program).parent_path() / "lie");
    const auto handles = parseWorkerArguments(arguments);
    if (chosen == "leaves" || !handles)
        return 0;
    if (chosen == "other version")
        return static_cast<int>(workerOfOtherVersion);
    WorkerChannel& channel = *map(*handles);
    for (;;) {
        WaitForSingleObject(handles->question, INFINITE);
        if (chosen == "silent")
            continue;
        channel.taken = channel.question.number;
        VirtualAlloc(channel.pixels(), 64 * 32 * 4, MEM_COMMIT, PAGE_READWRITE);
        channel.answer = {channel.question.number, WorkerOutcome::answered, S_OK, 2, 64, 32};
        channel.state = WorkerState::idle;
        for (const Lie& lie : lies)
            if (chosen == lie.name)
                lie.tell(channel);
        SetEvent(handles->answer);
    }
}
