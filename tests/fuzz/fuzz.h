#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <vector>

#include "base/file.h"
#include "parcel.h"

// Fuzzers write into the directory that they are started in.
namespace KITE::Fuzz {

using Input = FuzzedDataProvider;
using Linux::WriteFile;

// What must hold beside the sanitizers' demands; the finding's stack tells what did not.
inline void Require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

inline std::vector<std::string> Split(std::string_view text, char separator, size_t most) {
    std::vector<std::string> pieces;
    for (size_t end = 0; pieces.size() + 1 < most && (end = text.find(separator)) != text.npos;) {
        pieces.emplace_back(text.substr(0, end));
        text.remove_prefix(end + 1);
    }
    pieces.emplace_back(text);
    return pieces;
}

// A parcel of what is left of the input, behind what was written to the parcel before.
inline MessageParcel TheRest(Input& input, const Parcel& before = {}) {
    std::vector<std::byte> bytes(before.Bytes().begin(), before.Bytes().end());
    for (const auto byte : input.ConsumeRemainingBytes<uint8_t>()) {
        bytes.push_back(std::byte{byte});
    }
    return MessageParcel(std::move(bytes));
}

inline bool AreEqual(const Parcel& one, const Parcel& other) {
    return std::ranges::equal(one.Bytes(), other.Bytes());
}

}  // namespace KITE::Fuzz
