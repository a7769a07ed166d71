#ifndef HOST_KYFD_H
#define HOST_KYFD_H

#include "platform/KyFd.h"

#endif
