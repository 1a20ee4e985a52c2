#pragma once

namespace KITE::Rqctl {

// The exit status of all subcommands. A wrong command line ends with CLI11's numbers, 100 and above.
enum ExitStatus : int {
    kDone = 0,
    kWarnings = 1,     // check --strict: nothing but warnings was found
    kRefused = 2,      // check: the service refuses what was given
    kUnreachable = 3,  // the bus or the service
    kDenied = 4,       // the service does not answer this user, or the user may not do it
    kFailed = 5,       // something else went wrong; standard error says what
    kNoSuch = 6,       // there is no such process or name
    kNotTreated = 7,   // release: nothing is done to the process
};

inline constexpr const char* kExitStatusHelp =
    "Exit status: 0 done, 1 only warnings (check --strict), 2 refused by the service (check),\n"
    "3 the bus or the service cannot be reached, 4 not allowed, 5 failed, 6 no such process or name,\n"
    "7 not treated (release), 100 and above a wrong command line. NO_COLOR turns colours off.";

}  // namespace KITE::Rqctl
