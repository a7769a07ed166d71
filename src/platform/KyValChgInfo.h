#ifndef PLATFORM_KYVALCHGINFO_H
#define PLATFORM_KYVALCHGINFO_H

/// A change of one point of the device. The platform reports it to the transfer service, which passes it to
/// KyTferClient::DataChange.
///
/// The platform owns this record and its value; both are valid only during the call to which they are passed.
struct KyValChgInfo {
    int pntId;                 ///< identifier of the point that changed
    unsigned short mmIdx;      ///< multi-module index of the changed point
    unsigned short valLength;  ///< length of a string value, in 16-bit units, at most 256; unused for numbers
    const void* value;         ///< the new value in host byte order, not necessarily aligned: 16-bit units
                               ///< for a string, 16 bits for point 8631, 32 bits for other numbers. Null for
                               ///< the empty string; a change of a number is then ignored
};

#endif
