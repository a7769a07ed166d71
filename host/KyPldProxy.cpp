#include "platform/KyPldProxy.h"

KyPldProxy::~KyPldProxy() = default;

bool KyPldProxy::GetDevFile(unsigned short device, const std::string& option,
                            const std::string& transferName) {
    return DoGetDevFile(device, option, transferName);
}

bool KyPldProxy::PutDevFile(unsigned short device, const std::string& directory, const std::string& fileName,
                            const std::string& transferName) {
    return DoPutDevFile(device, directory, fileName, transferName);
}
