#include "fake_platform.h"

#include "fake_content_client.h"

namespace fake {

PlatformState& State() {
    static PlatformState state;
    return state;
}

void Reset() {
    State() = PlatformState{};
    ContentClient() = ContentClientState{};
    State().now.tm.tm_year = 126;  // 2026-03-02 14:03:09
    State().now.tm.tm_mon = 2;
    State().now.tm.tm_mday = 2;
    State().now.tm.tm_hour = 14;
    State().now.tm.tm_min = 3;
    State().now.tm.tm_sec = 9;
    // The folders of the default temp path exist, as they do on a real machine.
    for (const wchar_t* folder : {L"C:\\Users", L"C:\\Users\\svc", L"C:\\Users\\svc\\AppData",
                                  L"C:\\Users\\svc\\AppData\\Local",
                                  L"C:\\Users\\svc\\AppData\\Local\\Temp"})
        State().folders.insert(folder);
}

std::wstring FileText(const std::wstring& path) {
    auto it = State().files.find(path);
    if (it == State().files.end()) return {};
    std::vector<std::uint8_t> bytes = it->second;
    if (bytes.size() >= 2 && bytes[0] == 0xFF && bytes[1] == 0xFE) bytes.erase(bytes.begin(), bytes.begin() + 2);
    return core::WideFromUtf16Bytes(bytes);
}

}  // namespace fake
