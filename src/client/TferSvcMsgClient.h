#ifndef CLIENT_TFERSVCMSGCLIENT_H
#define CLIENT_TFERSVCMSGCLIENT_H

#include <memory>
#include <string>

#include "messages/KyTferExport.h"

class KyIpcFifoSession;
class KyTferMsg;
class KyTferRespMsg;

/// How a process other than the transfer service asks the service for something. Each request is one round
/// trip: the message goes to the service's control FIFO, and one message comes back on a FIFO of this
/// client's own, which exists for the length of the request only.
///
/// A process has one client, and makes one request at a time through it: the client has no lock, and a
/// process that uses it on several threads takes turns itself. Any number of processes may ask at the same
/// time.
///
/// A request blocks until the service has taken the message and until its reply has come. The platform bounds
/// the first; the wait for the reply ends after 60 seconds, or as soon as the platform tells that the service
/// has ended. Where no service runs, a request fails at once. What fails on the way is logged with severity
/// KY_DLOG_ERROR and gives null. Nothing is tried twice, and no exception leaves the client.
///
/// A reply is the first message that arrives; it is not compared with the request. It belongs to the caller,
/// who deletes it.
class KYTFER_EXPORT TferSvcMsgClient {
public:
    /// The process's client, made by the first call, on whatever thread, and destroyed at the process's exit.
    /// Null only if that first call has run out of memory.
    static TferSvcMsgClient* GetInstance();

    TferSvcMsgClient();
    TferSvcMsgClient(const TferSvcMsgClient&) = delete;
    TferSvcMsgClient& operator=(const TferSvcMsgClient&) = delete;
    virtual ~TferSvcMsgClient();

    /// Sends a request and waits for the reply.
    ///
    /// @param request  not null; from the heap, deleted here whatever happens. Its reply FIFO is filled in
    ///                 here; the rest goes as it is
    /// @return the reply, of any class; null on any failure, and for a reply of no known type
    KyTferMsg* DoRequest(KyTferMsg* request);

    /// Asks for the status of the current transaction.
    ///
    /// @return the reply as DoRequest() gives it, a KyTferStatusMsg if the service is in order; or null
    KyTferMsg* GetStatus();

    /// Asks the service to cancel a transaction, and waits for the reply, which it throws away: the caller
    /// learns nothing of the outcome.
    void CancelTransaction(const std::string& transId);

    /// Asks the service to fetch the device's directory listing.
    ///
    /// @return the service's answer to the request, not its end; null on any failure, and if the reply is of
    ///         another class
    KyTferRespMsg* GetDevDirectory();

    /// Asks the service to push a file of the card to the device.
    ///
    /// @param srcPath  path of the file
    /// @return as from GetDevDirectory()
    KyTferRespMsg* PutDevFile(const std::string& srcPath);

    /// Asks the service to fetch a file from the device.
    ///
    /// @param xferFileName  the file's name on the way from the device
    /// @param unused        not sent
    /// @param fileSize      size of the file in bytes, sent as a signed number of 32 bits
    /// @return as from GetDevDirectory()
    KyTferRespMsg* GetDevFile(const std::string& xferFileName, const std::string& unused,
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
