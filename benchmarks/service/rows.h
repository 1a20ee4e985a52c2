// The rows of this program.
#pragma once

namespace KITE::Benchmarks {

void AddWriteBytes();
void AddReports();
void AddPolicy();

// The exit status of a process that was started to measure memory, with the words that the parent gave it; -1
// where they are not such words.
int RunAsMemoryProbe(int argc, char** argv);

}  // namespace KITE::Benchmarks
