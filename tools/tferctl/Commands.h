#ifndef TFERCTL_COMMANDS_H
#define TFERCTL_COMMANDS_H

#include "tferctl/Console.h"
#include "tferctl/Options.h"
#include "tferctl/Service.h"

namespace ky_tferctl {

/// What a command works with.
struct Context {
    const Options& options;
    Service& service;
    Console& out;      ///< standard output
    Console& notices;  ///< standard error
};

// Each command returns when it is done, and throws a Failure otherwise.
void RunStatus(const Context& context);
void RunList(const Context& context);
void RunGet(const Context& context);
void RunPut(const Context& context);
void RunCancel(const Context& context);

}  // namespace ky_tferctl

#endif
