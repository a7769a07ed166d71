#ifndef PLATFORM_KYVALCHGINFO_H
#define PLATFORM_KYVALCHGINFO_H

/// One point of the device has changed: what the platform tells the transfer service, and the service hands
/// on to KyTferClient::DataChange.
///
/// The record and the value it points to are the platform's and are valid only during the call they are
/// passed to.
struct KyValChgInfo {
    int pntId;                 ///< identifier of the point that changed
    unsigned short mmIdx;      ///< multi-module index of the changed point
    unsigned short valLength;  ///< length of a string value, in 16-bit units; of no meaning for numbers
    const void* value;         ///< the new value in host byte order, not necessarily aligned: 16-bit units
                               ///< for a string, 32 or 16 bits for a number, as the point is defined
};

#endif
