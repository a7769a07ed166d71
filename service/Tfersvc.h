#ifndef SERVICE_TFERSVC_H
#define SERVICE_TFERSVC_H

/// The program `tfersvc`: runs the transfer service until SIGTERM or SIGINT.
///
/// @return its exit status: 0 after a signal, 1 if the service could not start, 2 for a wrong command line
int TfersvcMain(int argc, char** argv);

#endif
