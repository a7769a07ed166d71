// The requests of callers to the transfer service, but for the status request, which is a KyTferStatusMsg.
#include "messages/KyTferCancelTransMsg.h"
#include "messages/KyTferGetDevDirMsg.h"
#include "messages/KyTferGetDevFile.h"
#include "messages/KyTferPutDevFile.h"
#include "platform/KyIpcMsgUtil.h"

KyTferCancelTransMsg::KyTferCancelTransMsg(int sizeHint) : KyTferMsg(sizeHint) {
    SetMsgType(TFER_MSG_CANCEL_TRANS);
}

KyTferCancelTransMsg::~KyTferCancelTransMsg() = default;

void KyTferCancelTransMsg::Serialize(KyIpcMsgBuffer* buffer) {
    KyTferMsg::Serialize(buffer);
}

void KyTferCancelTransMsg::Deserialize(KyIpcMsgBuffer* buffer) {
    KyTferMsg::Deserialize(buffer);
}

KyTferGetDevDirMsg::KyTferGetDevDirMsg(int sizeHint) : KyTferMsg(sizeHint) {
    SetMsgType(TFER_MSG_GET_DEV_DIR);
}

KyTferGetDevDirMsg::~KyTferGetDevDirMsg() = default;

void KyTferGetDevDirMsg::Serialize(KyIpcMsgBuffer* buffer) {
    KyTferMsg::Serialize(buffer);
}

void KyTferGetDevDirMsg::Deserialize(KyIpcMsgBuffer* buffer) {
    KyTferMsg::Deserialize(buffer);
}

KyTferDevFileMsg::KyTferDevFileMsg(int sizeHint) : KyTferMsg(sizeHint), m_xferFileSize(0) {}

KyTferDevFileMsg::KyTferDevFileMsg(const std::string& origFileName, const std::string& xferFileName,
                                   int xferFileSize, int sizeHint)
    : KyTferMsg(sizeHint),
      m_origFileName(origFileName),
      m_xferFileName(xferFileName),
      m_xferFileSize(xferFileSize) {}

KyTferDevFileMsg::KyTferDevFileMsg(const KyTferDevFileMsg& other) = default;

KyTferDevFileMsg& KyTferDevFileMsg::operator=(const KyTferDevFileMsg& other) = default;

KyTferDevFileMsg::~KyTferDevFileMsg() = default;

void KyTferDevFileMsg::Serialize(KyIpcMsgBuffer* buffer) {
    KyTferMsg::Serialize(buffer);
    Put(buffer, m_xferFileName);
    Put(buffer, m_origFileName);
    Put(buffer, m_xferFileSize);
}

void KyTferDevFileMsg::Deserialize(KyIpcMsgBuffer* buffer) {
    KyTferMsg::Deserialize(buffer);
    KyIpcMsgUtil::ExtractStringParam(buffer, m_xferFileName);
    KyIpcMsgUtil::ExtractStringParam(buffer, m_origFileName);
    m_xferFileSize = KyIpcMsgUtil::ExtractInteger(buffer);
}

KyTferGetDevFile::KyTferGetDevFile(int sizeHint) : KyTferDevFileMsg(sizeHint) {
    SetMsgType(TFER_MSG_GET_DEV_FILE);
}

KyTferGetDevFile::~KyTferGetDevFile() = default;

void KyTferGetDevFile::Serialize(KyIpcMsgBuffer* buffer) {
    KyTferDevFileMsg::Serialize(buffer);
}

void KyTferGetDevFile::Deserialize(KyIpcMsgBuffer* buffer) {
    KyTferDevFileMsg::Deserialize(buffer);
}

KyTferPutDevFile::KyTferPutDevFile(int sizeHint) : KyTferDevFileMsg(sizeHint) {
    SetMsgType(TFER_MSG_PUT_DEV_FILE);
}

KyTferPutDevFile::KyTferPutDevFile(const KyTferPutDevFile& other) = default;

KyTferPutDevFile& KyTferPutDevFile::operator=(const KyTferPutDevFile& other) = default;

KyTferPutDevFile::~KyTferPutDevFile() = default;

void KyTferPutDevFile::Serialize(KyIpcMsgBuffer* buffer) {
    KyTferDevFileMsg::Serialize(buffer);
    Put(buffer, m_srcPath);
}

void KyTferPutDevFile::Deserialize(KyIpcMsgBuffer* buffer) {
    KyTferDevFileMsg::Deserialize(buffer);
    KyIpcMsgUtil::ExtractStringParam(buffer, m_srcPath);
}
