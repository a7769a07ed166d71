#ifndef CLIENT_TFERSVCMSGCLIENT_H
#define CLIENT_TFERSVCMSGCLIENT_H

#include <memory>
#include <string>

#include "messages/KyTferExport.h"

class KyIpcFifoSession;
class KyTferMsg;
class KyTferRespMsg;

/// Sends requests of a process to the transfer service. The client writes each request to the service's
/// control FIFO and reads one reply from a FIFO of its own, which exists during the request only.
///
/// A process has one client, which makes one request at a time. The client has no lock: a process with
/// several threads must serialise its requests. Any number of processes may send requests at the same time.
///
/// A request blocks until the message is written and the reply has come. The platform bounds the write. The
/// wait for the reply ends after 60 seconds, or as soon as the platform reports that the service has ended.
/// Without a service, a request fails at once. Failures are logged with severity KY_DLOG_ERROR and return
/// null. Requests are not retried, and no operation throws.
///
/// The reply is the first message that arrives; the client does not compare it with the request. The caller
/// owns the reply and deletes it.
class KYTFER_EXPORT TferSvcMsgClient {
public:
    /// The process's client. The first call, on any thread, creates it; it is destroyed when the process
    /// exits. Null only if memory has run out in the first call.
    static TferSvcMsgClient* GetInstance();

    TferSvcMsgClient();
    TferSvcMsgClient(const TferSvcMsgClient&) = delete;
    TferSvcMsgClient& operator=(const TferSvcMsgClient&) = delete;
    virtual ~TferSvcMsgClient();

    /// Sends a request and waits for the reply.
    ///
    /// @param request  not null; from the heap; always deleted. The call sets its reply FIFO
    /// @return the reply, of any class; null on failure, and for a reply of an unknown type
    KyTferMsg* DoRequest(KyTferMsg* request);

    /// Requests the status of the current transaction.
    ///
    /// @return the reply, a KyTferStatusMsg unless the service is faulty; null as from DoRequest()
    KyTferMsg* GetStatus();

    /// Requests to cancel a transaction, and waits for the reply. The reply is discarded: the caller does not
    /// learn the result.
    void CancelTransaction(const std::string& transId);

    /// Requests to fetch the device's directory listing.
    ///
    /// @return whether the service has accepted the request, not the result of the transfer; null on failure,
    ///         and if the reply is of another class
    KyTferRespMsg* GetDevDirectory();

    /// Requests to push a file of the card to the device.
    ///
    /// @param srcPath  absolute path of the file
    /// @return as from GetDevDirectory()
    KyTferRespMsg* PutDevFile(const std::string& srcPath);

    /// Requests to fetch a file from the device.
    ///
    /// @param transferName  the file's transfer name
    /// @param unused        not sent
    /// @param fileSize      size of the file in bytes, sent as a signed number of 32 bits
    /// @return as from GetDevDirectory()
    KyTferRespMsg* GetDevFile(const std::string& transferName, const std::string& unused,
                              unsigned int fileSize);

private:
    KyTferMsg* RoundTrip(KyTferMsg& request);
    bool OpenFifos(const std::string& replyFifo);
    bool Send(KyTferMsg& request, const std::string& replyFifo);
    KyTferMsg* Receive(const std::string& replyFifo);
    void EndSession();

    std::unique_ptr<KyIpcFifoSession> m_session;  // null between requests
    std::string m_clientName;
};

#endif
