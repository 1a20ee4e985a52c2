#pragma once

#include "fixture.h"

namespace KITE::Integration {

// The operator's command, as an operator sees it: what was typed, the exit status, what was printed.
class RqctlFixture : public SystemTest {
  protected:
    struct Command {
        Command(const std::string& path, const std::vector<std::string>& words, uid_t uid)
            : output(path),
              process({.program = KITE_RQCTL, .arguments = words, .uid = uid, .output = output.Fd()}) {}
        LogFile output;
        Process process;
    };
    struct Outcome {
        int status;
        std::string text;  // standard output and error
    };

    Command& Begin(std::vector<std::string> words, uid_t uid = kTrustedUid) {
        words.insert(words.begin(),
                     {"rqctl", "--bus", Address(), "--etc", Directory() + "/etc", "--state", State()});
        const std::string path = Directory() + "/rqctl." + std::to_string(commands_.size());
        return commands_.emplace_back(path, words, uid);
    }
    Outcome Rqctl(const std::vector<std::string>& words, uid_t uid = kTrustedUid) {
        Command& command = Begin(words, uid);
        const int status = command.process.AwaitExit();
        return {status, command.output.Text()};
    }
    // Expects the exit status, and that each of the texts is told.
    void Expect(int status, const std::vector<std::string>& words,
                std::initializer_list<std::string> texts = {}, uid_t uid = kTrustedUid) {
        const Outcome outcome = Rqctl(words, uid);
        EXPECT_EQ(status, outcome.status) << testing::PrintToString(words) << outcome.text;
        ExpectContains(outcome.text, texts);
    }

  private:
    std::deque<Command> commands_;
};

}  // namespace KITE::Integration
