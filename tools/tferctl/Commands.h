#ifndef TFERCTL_COMMANDS_H
#define TFERCTL_COMMANDS_H

#include "common/Console.h"
#include "tferctl/Options.h"
#include "tferctl/Service.h"

namespace ky_tferctl {

/// What a command works with.
struct Context {
    const Options& options;
    Service& service;
    ky_tools::Console& out;      ///< standard output
    ky_tools::Console& notices;  ///< standard error
};

/// The commands of the command line, one each. They return when they have done what was asked for, and throw
/// a Failure otherwise.
void RunStatus(const Context& context);
void RunList(const Context& context);
void RunGet(const Context& context);
void RunPut(const Context& context);
void RunCancel(const Context& context);

}  // namespace ky_tferctl

#endif
