#ifndef SIMDEVICE_SIMCALL_H
#define SIMDEVICE_SIMCALL_H

#include <string>

/// The operations of the proxy.
enum class SimCallKind {
    GET_STRING,
    GET_UINT32,
    SET_STRING,
    SET_UINT32,
    MODULE_COUNT,
    REPORT_ID,
    GET_FILE,
    PUT_FILE
};

/// A call of the proxy by the card.
struct SimCall {
    SimCallKind operation = SimCallKind::GET_STRING;
    unsigned int pointId = 0;   ///< the point; for MODULE_COUNT the report; 0 for files
    std::string value;          ///< the written value, numbers in decimal; the name of a fetched file; for a
                                ///< push directory, name and transfer name, separated by " "
    unsigned int timeout = 0;   ///< of writes, as passed
    unsigned short device = 0;  ///< as passed
    unsigned short mmIdx = 0;   ///< as passed; 0 for calls without one
};

#endif
