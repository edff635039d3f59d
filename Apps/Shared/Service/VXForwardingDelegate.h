#pragma once

// A host's look at what its client reports: a delegate that passes every
// call on to the API controller's own delegate, for a host to override the
// calls it watches (velvox's request log and progress bar, the desktop's
// upload progress). And what a copy of a client takes over.

#include <VelvoxAPI/VXVelvoxAPI.h>
#include <VelvoxAPI/VXVelvoxAPIDelegate.h>

namespace velvox::app {

class VXForwardingDelegate : public VXVelvoxAPIDelegate {
public:
    explicit VXForwardingDelegate(VXVelvoxAPIDelegate* controller)
        : m_controller(controller)
    {
    }

    void velvoxAPIDidFinishWithData(VXVelvoxAPI& api, Data* data, Object* context, Dictionary* userInfo) override
    {
        m_controller->velvoxAPIDidFinishWithData(api, data, context, userInfo);
    }
    void velvoxAPIDidFailWithError(VXVelvoxAPI& api, Error* error, Object* context, Dictionary* userInfo) override
    {
        m_controller->velvoxAPIDidFailWithError(api, error, context, userInfo);
    }
    void velvoxAPIDidReceiveData(VXVelvoxAPI& api, Data* data, Object* context, Dictionary* userInfo) override
    {
        m_controller->velvoxAPIDidReceiveData(api, data, context, userInfo);
    }
    void velvoxAPIDidReceiveBytes(VXVelvoxAPI& api, uint64_t bytes, uint64_t total, Object* context, Dictionary* userInfo) override
    {
        m_controller->velvoxAPIDidReceiveBytes(api, bytes, total, context, userInfo);
    }
    void velvoxAPIDidSendBytes(VXVelvoxAPI& api, uint64_t bytes, uint64_t total, Object* context, Dictionary* userInfo) override
    {
        m_controller->velvoxAPIDidSendBytes(api, bytes, total, context, userInfo);
    }
    bool velvoxAPIWantsReceivedData() const override { return m_controller->velvoxAPIWantsReceivedData(); }

protected:
    VXVelvoxAPIDelegate* m_controller;
};

// The configuration VXVelvoxAPI's own copy takes over, for a subclass's copy.
inline void copyClientConfiguration(const VXVelvoxAPI& from, VXVelvoxAPI& to)
{
    to.setTimeout(from.timeout());
    to.setConnectTimeout(from.connectTimeout());
    to.setMaximumAnswerSize(from.maximumAnswerSize());
    to.setMaximumRunningRequests(from.maximumRunningRequests());
    to.setRetryPolicy(from.retryPolicy());
    to.setAnswerCache(from.answerCache());
}

} // namespace velvox::app
