#pragma once

// What a VXVelvoxAPI tells its delegate about a request. Every call hands back
// the very context and userInfo objects the request was performed with. A
// request ends with exactly one of didFinishWithData or didFailWithError, with
// progress calls before it; all calls arrive on the run loop of the thread
// that performed the request.
//
// The five callbacks share their first selector keyword; as overloads two of
// them would have the same parameters, so each carries its full name.

#include <Platform/Collections.h>
#include <Platform/Values.h>

#include <cstdint>

namespace velvox {

class VXVelvoxAPI;

class VXVelvoxAPIDelegate {
public:
    virtual ~VXVelvoxAPIDelegate() = default;

    // velvoxAPI:didFinishWithData:context:userInfo: — the raw response body.
    virtual void velvoxAPIDidFinishWithData(VXVelvoxAPI&, Data* data, Object* context, Dictionary* userInfo) = 0;
    // velvoxAPI:didFailWithError:context:userInfo: — an HTTP status of 400 or
    // more (the error's code), or a transfer failure.
    virtual void velvoxAPIDidFailWithError(VXVelvoxAPI&, Error* error, Object* context, Dictionary* userInfo) = 0;
    // velvoxAPI:didReceiveData:context:userInfo: — a piece of the body as it arrives.
    virtual void velvoxAPIDidReceiveData(VXVelvoxAPI&, Data* data, Object* context, Dictionary* userInfo) = 0;
    // velvoxAPI:didReceiveBytes:total:context:userInfo: — download progress.
    virtual void velvoxAPIDidReceiveBytes(VXVelvoxAPI&, uint64_t bytes, uint64_t total, Object* context, Dictionary* userInfo) = 0;
    // velvoxAPI:didSendBytes:total:context:userInfo: — upload progress; never 0 bytes.
    virtual void velvoxAPIDidSendBytes(VXVelvoxAPI&, uint64_t bytes, uint64_t total, Object* context, Dictionary* userInfo) = 0;
    // Whether the delegate reads the pieces of the body and the download
    // progress at all (asked when a request starts). A delegate that answers
    // false never gets velvoxAPIDidReceiveData or velvoxAPIDidReceiveBytes,
    // and no piece is copied for it.
    virtual bool velvoxAPIWantsReceivedData() const { return true; }
};

} // namespace velvox
