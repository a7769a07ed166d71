#ifndef DEMO_DEMO_H
#define DEMO_DEMO_H

namespace ky_demo {

/// The command line `ky-demo [FILE...]`: a card and a simulated device meet in this process, the card lists
/// the device's files, fetches all of them and pushes one, and every file that arrived is compared with the
/// one that was sent. Tells it on standard output, in real time, about twelve seconds long with the sample
/// files.
///
/// Works in the sandbox only, because it clears what it finds of an earlier run in /var/local and /var/tmp.
///
/// Throws nothing.
///
/// @return the exit status: 0 if every file arrived and is equal, 1 if not, 2 for a wrong command line
int Main(int argc, char** argv);

}  // namespace ky_demo

#endif
