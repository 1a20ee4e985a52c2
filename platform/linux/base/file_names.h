#pragma once

// The names of the system's files.
namespace KITE::Linux::FileName {

// Below the etc directory.
inline constexpr const char* kTokens = "/tokens.json";
inline constexpr const char* kParameters = "/parameters.json";
inline constexpr const char* kConfigDirectories = "/config_directories.json";

// Below the state directory.
inline constexpr const char* kEvents = "/events.jsonl";
inline constexpr const char* kDeviceState = "/device_state.json";

// Below the run directory: a folder with a file for each treated process.
inline constexpr const char* kTreatments = "/treated";

// Below the directory of samples.
inline constexpr const char* kSamples = "/samples.jsonl";

}  // namespace KITE::Linux::FileName
