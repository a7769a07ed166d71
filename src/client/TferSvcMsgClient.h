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
/// The name of the reply FIFO contains the identifier of the process that created the client: after fork(),
/// parent and child must not both use it.
///
/// A request blocks until the message is written and the reply has come. The write takes at most 10 seconds
/// unless the platform sets another limit. The wait for the reply ends after 60 seconds, or as soon as the
/// platform reports that the service has ended. Without a service, a request fails at once. Failures are
/// logged with severity KY_DLOG_ERROR and return null. Requests are not retried. No operation but the
/// constructor throws.
///
/// The reply is the first message that arrives; the client does not compare it with the request. The caller
/// owns the reply and deletes it. During the module search the service refuses all requests but GetStatus().
class KYTFER_EXPORT TferSvcMsgClient {
public:
    /// The process's client. The first call, on any thread, creates it; it is destroyed when the process
    /// exits. Null only if memory has run out in the first call.
    static TferSvcMsgClient* GetInstance();

    /// For GetInstance(): a second client of a process would use the same reply FIFO. Throws std::bad_alloc.
    TferSvcMsgClient();
    TferSvcMsgClient(const TferSvcMsgClient&) = delete;
    TferSvcMsgClient& operator=(const TferSvcMsgClient&) = delete;
    virtual ~TferSvcMsgClient();

    /// Sends a request and waits for the reply.
    ///
    /// @param request  not null; created with `new`. The call sets the reply FIFO of the request, and always
    ///                 deletes the request
    /// @return the reply, of any class; null on failure, and for a reply of an unknown type
    KyTferMsg* DoRequest(KyTferMsg* request);

    /// Requests the status record of the current or last transaction.
    ///
    /// @return the reply, a KyTferStatusMsg unless the service is faulty: TFER_STATUS_FAIL with the reason
    ///         during the module search; null as from DoRequest()
    KyTferMsg* GetStatus();

    /// Requests to cancel a transaction, and waits for the reply. Deletes the reply: to learn the result,
    /// use DoRequest() with a KyTferCancelTransMsg.
    ///
    /// @param transId  identifier in the request that began the transaction; empty for any transaction in
    ///                 progress. The requests of this class have an empty identifier
    void CancelTransaction(const std::string& transId);

    /// Requests to fetch the device's directory listing.
    ///
    /// @return the reply: whether the service has accepted the request (see KyTferRespMsg), not the result of
    ///         the transfer; null on failure, and if the reply is of another class
    KyTferRespMsg* GetDevDirectory();

    /// Requests to push a file of the card to the device. The service consumes the file: it moves the file to
    /// the staging directory /var/local/tal/pldserver, or removes the file if that fails.
    ///
    /// @param srcPath  absolute path of the file, on the file system of the staging directory. The service
    ///                 must have permission to move the file
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
