#ifndef ENGINE_KYTFERCLIENTCONSTANTS_H
#define ENGINE_KYTFERCLIENTCONSTANTS_H

#include "messages/KyServiceContract.h"

/// Constants of the engine's sources: points, values of the request point, time-outs and texts. Internal.
namespace ky_engine {

/// Source name in all log lines of the engine.
constexpr char kSource[] = "KyTferClient";

/// Points of the device.
constexpr unsigned short PNT_MON_AGENT_INFO = 6459;        ///< identity of the agent at each module index
constexpr unsigned short PNT_SERVER_MIN_VERSION = 8596;    ///< lowest protocol version of the device
constexpr unsigned short PNT_SERVER_MAX_VERSION = 8597;    ///< highest protocol version of the device
constexpr unsigned short PNT_CLIENT_MIN_VERSION = 8598;    ///< lowest protocol version of the card
constexpr unsigned short PNT_CLIENT_MAX_VERSION = 8599;    ///< highest protocol version of the card
constexpr unsigned short PNT_SERVER_MAX_FILE_SIZE = 8600;  ///< largest file that the device accepts
constexpr unsigned short PNT_CLIENT_MAX_FILE_SIZE = 8601;  ///< largest file that the card accepts
constexpr unsigned short PNT_CLIENT_FILE_REQ = 8602;       ///< requests of the card and the device's answers
constexpr unsigned short PNT_XFER_FILE_NAME = 8603;        ///< name of the file being pushed
constexpr unsigned short PNT_XFER_FILE_SIZE = 8604;        ///< size of the file being transferred
constexpr unsigned short PNT_DMP_SUPPORTED = 8631;         ///< whether the device supports the USB transport
constexpr unsigned short PNT_MAX_USB_SPEED = 8632;  ///< 2 or less: full speed or lower; 3 or more: high

/// Values of PNT_CLIENT_FILE_REQ.
constexpr char kRequestNone[] = "NONE";
using ky_service::kRequestDirectory;
constexpr char kRequestReady[] = "READY";
constexpr char kRequestSuccess[] = "SUCCESS";
constexpr char kRequestError[] = "ERROR";

/// Time-outs of point writes, in the proxy's unit.
constexpr unsigned int kStringWriteTimeout = 1000;
constexpr unsigned int kUint32WriteTimeout = 5000;

/// Status values of the engine's own failures.
constexpr int kNoProxy = -1;
constexpr int kProxyThrew = -2;
constexpr int kNoMemory = -3;
constexpr int kStopped = -4;
constexpr char kOutOfMemory[] = "Out of memory";

/// Staging directory, and parent of the landing directories.
using ky_service::kStagingDirectory;

/// Texts of log lines and of the record.
constexpr char kNotInitialized[] = "LOGIC ERROR - KyTferRespClient not initialized";
using ky_service::kAlreadyInProgress;
using ky_service::kTransferInProgress;
constexpr char kTransferComplete[] = "File Transfer Complete";
constexpr char kTimedOut[] = "File transfer Failed - timeout";
constexpr char kListingRequested[] = "Directory listing has been requested";
constexpr char kPushInProgress[] = "In Progress";
constexpr char kRequestFailed[] = "Request failed";
using ky_service::kCancelled;
constexpr char kNothingToReport[] = "In Progress - No progress to report";

}  // namespace ky_engine

#endif
