#include "platform/KyPldProxy.h"

KyPldProxy::~KyPldProxy() = default;

bool KyPldProxy::GetDevFile(unsigned short device, const std::string& option, const std::string& fileName) {
    return DoGetDevFile(device, option, fileName);
}

bool KyPldProxy::PutDevFile(unsigned short device, const std::string& directory, const std::string& fileName,
                            const std::string& xferFileName) {
    return DoPutDevFile(device, directory, fileName, xferFileName);
}
