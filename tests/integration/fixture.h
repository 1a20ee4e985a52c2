#pragma once

#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include "tested_system.h"

namespace KITE::Integration {

// A system for each test. Ends everything after the test, and fails it when a host does not stop as it must,
// or a sanitizer had something to say.
class SystemTest : public testing::Test, public TestedSystem {
  protected:
    void TearDown() override;

    // The service answers a trusted caller correctly within a second.
    void ExpectPromptAnswer();
};

}  // namespace KITE::Integration
