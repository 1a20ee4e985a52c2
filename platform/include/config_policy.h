#pragma once

#include <cstddef>

#include "visibility.h"

inline constexpr std::size_t MAX_CFG_POLICY_DIRS_CNT = 32;

// Configuration directories in the order in which their files are to be merged, the least specific first.
// Unused slots are null, anywhere in the array.
struct CfgDir {
    char* paths[MAX_CFG_POLICY_DIRS_CNT];
};

extern "C" {
// The list, owned by the caller and released by FreeCfgDirList; null when there is none. Any thread.
KITE_API CfgDir* GetCfgDirList();
// Releases a list; null is accepted.
KITE_API void FreeCfgDirList(CfgDir* list);
}
