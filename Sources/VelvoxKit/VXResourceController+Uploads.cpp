// The store's uploads and comments: answers enter the identity map.

#include "VXResourceController.h"

#include <Platform/Platform.h>

#include <cmath>

namespace velvox {

void VXResourceController::postTrackWithTrackDictionary(Dictionary* track, UploadProgressBlock progressBlock, ResultBlock completionBlock, Subscription* subscription)
{
    checkThread(__func__);
    VXAssert(track, "you need to provide track data to post");
    if (!m_apiController)
        return;
    Ref protectedThis { *this };
    Ref<Dictionary> upload { *track };
    auto progress = [protectedThis, upload, progressBlock = std::move(progressBlock)](VXAPIController*, float value) {
        if (!progressBlock)
            return;
        // The track as the upload describes it; without an identifier it is not cached.
        auto uploading = protectedThis->updateCacheForResource<VXTrack>(nullptr, upload.ptr());
        progressBlock(uploading.ptr(), value);
    };
    auto completion = [protectedThis, completionBlock = std::move(completionBlock)](VXAPIController*, Object* json, Error* error) {
        auto failure = protectedThis->readRecord(
            json, error, [] { return std::string("the uploaded track"); },
            [&](Dictionary* record) { protectedThis->updateCacheForResource<VXTrack>(nullptr, record); });
        if (completionBlock)
            completionBlock(failure && !error ? nullptr : json, failure.get());
    };
    m_apiController->postTrack(track, std::move(progress), std::move(completion), subscription);
}

void VXResourceController::postCommentWithTrackIdentifier(String* trackIdentifier, String* body, CommentBlock block, Subscription* subscription)
{
    checkThread(__func__);
    auto parameters = Dictionary::create({ { "comment[body]", body } });
    postCommentWithTrackIdentifier(trackIdentifier, parameters.ptr(), std::move(block), subscription);
}

void VXResourceController::postCommentWithTrackIdentifier(String* trackIdentifier, String* body, double timestamp, CommentBlock block, Subscription* subscription)
{
    checkThread(__func__);
    VXAssert(timestamp >= 0, "timestamp needs to be positive");
    // Milliseconds, truncated to an unsigned 64-bit integer and written as a
    // 32-bit "%d": positions past about 24.8 days wrap, as the service's
    // clients always sent them.
    double milliseconds = std::fmod(timestamp * 1000.0, 18446744073709551616.0);
    uint64_t truncated = std::isfinite(milliseconds) ? static_cast<uint64_t>(milliseconds) : 0;
    auto narrowed = static_cast<int32_t>(static_cast<uint32_t>(truncated));
    auto parameters = Dictionary::create({ { "comment[body]", body }, { "comment[timestamp]", String::format("%d", narrowed).ptr() } });
    postCommentWithTrackIdentifier(trackIdentifier, parameters.ptr(), std::move(block), subscription);
}

void VXResourceController::postCommentWithTrackIdentifier(String* trackIdentifier, Dictionary* parameters, CommentBlock block, Subscription* subscription)
{
    checkThread(__func__);
    VXAssert(trackIdentifier, "Track identifier needed for comment");
    VXAssert(parameters && parameters->objectForKey("comment[body]"), "Body needed for comment");
    if (!m_apiController)
        return;
    Ref protectedThis { *this };
    VXAPICallbackBlock answer = [protectedThis, block](VXAPIController*, Object* json, Error* error) {
        RefPtr<VXComment> comment;
        auto failure = protectedThis->readRecord(
            json, error, [] { return std::string("the posted comment"); },
            [&](Dictionary* record) { comment = protectedThis->updateCacheForResource<VXComment>(nullptr, record); });
        if (block)
            block(comment.get(), failure.get());
    };
    if (m_options.offlineChanges) {
        VXChangeJournal::Entry entry { VXChangeJournal::Kind::Comment, trackIdentifier->str() };
        entry.body = format("%@", parameters->objectForKey("comment[body]"));
        if (auto* position = parameters->objectForKey("comment[timestamp]")) {
            long long milliseconds = 0;
            auto text = position->description();
            if (std::sscanf(text->str().c_str(), "%lld", &milliseconds) == 1)
                entry.timestamp = milliseconds;
        }
        auto told = [answer](Object* json, Error* error) { answer(nullptr, json, error); };
        if (journalChange(std::move(entry), std::move(told), subscription))
            return;
    }
    m_apiController->postCommentForTrackIdentifer(trackIdentifier, parameters, std::move(answer), subscription);
}

} // namespace velvox
