#ifndef TFERCTL_TFERCTL_H
#define TFERCTL_TFERCTL_H

/// The program `tferctl`: asks the transfer service for a person or a script. What was asked for goes to
/// standard output; what there is to say about it, and one sentence for a failure, to standard error.
///
/// Changes the process: sets handlers for the signals that end it, so that it leaves nothing behind, and the
/// limit of the platform's log. To be called once, from a process with one thread.
///
/// @return the exit status, see ExitStatus. Throws nothing.
int TferctlMain(int argc, char** argv);

#endif
