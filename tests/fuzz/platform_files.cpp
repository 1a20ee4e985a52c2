// The platform's own files: the first byte of an input says which one the rest is.

#include "access_token.h"
#include "device/device_state.h"
#include "fuzz.h"
#include "runtime/access_tokens.h"
#include "runtime/settings.h"
#include "treatments/treatment_record.h"

using namespace KITE;
using namespace KITE::Fuzz;
using namespace KITE::Linux;

namespace {

void ReadDeviceState(const std::string& text) {
    const std::string path = "device_state.json";
    WriteFile(path, R"({"extensions": [{"uid": 1, "pid": 2}]})");
    Require(CurrentDeviceState()->extensions.size() == 1);
    WriteFile(path, text);
    const auto state = CurrentDeviceState();
    const auto isPossible = [](const auto& entry) { return entry.uid >= 0 && entry.pid > 0; };
    Require(std::ranges::all_of(state->extensions, isPossible) &&
            std::ranges::all_of(state->continuousTasks, isPossible) &&
            std::ranges::all_of(state->processResources, isPossible));
    Require(CurrentDeviceState() == state);
}

void ReadTokens(const std::string& text) {
    constexpr uid_t kKept = 4294967290;
    WriteFile("tokens.json", R"({"tokens": [{"uid": 4294967290, "process_name": "kept"}]})");
    Require(static_cast<bool>(LoadAccessTokens()));
    WriteFile("tokens.json", text);
    Require(LoadAccessTokens() || TokenOfUid(kKept) == 1);
    Require(TokenOfUid(static_cast<uid_t>(-1)) == 0);
    NativeTokenInfo info;
    const uint32_t token = TokenOfUid(0);
    Require(token == 0 ||
            (AccessTokenKit::GetNativeTokenInfo(token, info) == 0 && !info.processName.empty()));
}

// What a record tells is the same when it is written and read again.
void ReadTreatment(const std::string& text) {
    if (const auto record = ReadRecord(text)) {
        const std::string written = WriteRecord(*record);
        const auto again = ReadRecord(written);
        Require(again && WriteRecord(*again) == written);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    SetSettings({".", ".", ""});
    constexpr void (*kReaders[])(const std::string&) = {ReadDeviceState, ReadTokens, ReadTreatment};
    if (size > 0) {
        kReaders[data[0] % std::size(kReaders)](std::string(data + 1, data + size));
    }
    return 0;
}
