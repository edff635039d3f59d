#include "Session.h"

#include "Commands.h"

#include <JSONCodec/JSONCodec.h>
#include <VelvoxKit/VXKit.h>
#include <VelvoxAPI/VXVelvoxAPI.h>
#include <ZUKit/ZUPastDateFormatter.h>

#include <cmath>
#include <cstdio>
#include <fstream>

namespace velvox::app {

Session::Session(const ServiceOptions& options)
    : m_options(options)
{
}

Session::~Session()
{
    finish(ExitSuccess);
    VXResourceController::setSharedResourceController(nullptr);
    if (m_sandbox)
        m_sandbox->stop();
}

int Session::open(const char* command)
{
    m_command = command;
    std::string baseURL = m_options.baseURL;
    if (baseURL.empty()) {
        if (const char* fromEnvironment = getenv("VELVOX_BASE_URL"))
            baseURL = fromEnvironment;
    }
    std::string token;
    if (!baseURL.empty()) {
        if (!resolveToken(m_options.token, m_options.tokenFile, command, token))
            return ExitUsage;
    } else {
        m_sandbox = std::make_unique<sandbox::SandboxService>(sandbox::SandboxService::Options {});
        std::string problem;
        if (!m_sandbox->start(&problem)) {
            fprintf(stderr, "velvox %s: cannot start the embedded sandbox: %s\n", command, problem.c_str());
            return ExitFailure;
        }
        baseURL = m_sandbox->baseURL();
        token = m_sandbox->token();
    }
    std::string problem;
    auto api = VXVelvoxAPI::create(baseURL, token, &problem);
    if (!api) {
        fprintf(stderr, "velvox %s: %s\n", command, problem.c_str());
        return ExitUsage;
    }
    api->setTimeout(30);
    // The host makes the store's folder, which the store itself only fills,
    // so that the identity map is kept from the first run on.
    FileManager::defaultManager().createDirectoryAtPath(
        stringByAppendingPathComponent(applicationSupportDirectory(), "Velvox"), true, nullptr, 0700);
    // The shared store: it loads the identity map of earlier runs, and finish()
    // saves it. Runs over long lists would grow the map without end; the most
    // recent objects of each class are what a next run is likely to show.
    VXResourceController::Options storeOptions;
    storeOptions.archivedObjectsPerClass = archivedObjectsPerClass;
    m_store = VXResourceController::create(VXAPIController::create(api.get()).ptr(), storeOptions);
    VXResourceController::setSharedResourceController(m_store);
    return ExitSuccess;
}

bool Session::waitFor(const std::function<bool()>& condition, double seconds)
{
    return RunLoop::current().runUntil(condition, seconds);
}

RefPtr<VXUser> Session::signIn(int& code)
{
    RefPtr<VXUser> me;
    RefPtr<Error> failure;
    bool done = false;
    // The signed-in account of an earlier run is known; asking again keeps it current.
    m_store->meUserForceRefresh(true, [&](VXUser* user, Error* error) {
        me = user;
        failure = error;
        done = true;
    });
    if (!waitFor([&] { return done; })) {
        code = fail("sign-in", Error::create(URLErrorDomain, 28, "No answer from the service.").ptr());
        return nullptr;
    }
    if (!me)
        code = fail("sign-in", failure.get());
    return me;
}

int Session::fail(const char* command, Error* error)
{
    if (!error) {
        fprintf(stderr, "velvox %s: the service's answer was not understood\n", command);
        return ExitService;
    }
    std::string message = printableExcerpt(error->localizedDescription()->view(), 512);
    bool network = error->domain()->isEqualToString(URLErrorDomain);
    int64_t status = error->code();
    if (network) {
        fprintf(stderr, "velvox %s: network failure: %s\n", command, message.c_str());
        return ExitNetwork;
    }
    if (status == 401 || status == 403) {
        fprintf(stderr, "velvox %s: not authorised (%lld). Pass a valid token with --token, --token-file FILE or $VELVOX_TOKEN.\n",
            command, static_cast<long long>(status));
        return ExitNotAuthorised;
    }
    if (status == 404) {
        fprintf(stderr, "velvox %s: not found\n", command);
        return ExitNotFound;
    }
    fprintf(stderr, "velvox %s: the service failed: %s\n", command, message.c_str());
    return ExitService;
}

int Session::loadCollection(const char* command, VXRemoteCollectionController& collection)
{
    if (!is<VXCursorCollectionController>(collection))
        collection.setPageSize(50);
    bool first = true;
    for (int pages = 0; pages < 1000 && (first || (m_options.all && collection.hasMoreItems())); ++pages) {
        collection.loadMoreItemsForReloadOperationType(first ? ZURemoteCollectionReloadOperationType::Reload : ZURemoteCollectionReloadOperationType::LoadMore, !first);
        first = false;
        if (!waitFor([&] { return !collection.isLoadingItems(); }))
            return fail(command, Error::create(URLErrorDomain, 28, "No answer from the service.").ptr());
        if (collection.lastError())
            return fail(command, collection.lastError());
    }
    return ExitSuccess;
}

void Session::print(const std::string& text)
{
    if (m_options.quiet)
        return;
    fwrite(text.data(), 1, text.size(), stdout);
}

int Session::finish(int code)
{
    if (m_finished)
        return code;
    m_finished = true;
    // The application terminates: the store saves its archives. A save that
    // fails loses what this run changed (a play, say), so it is said.
    if (m_store) {
        if (auto error = m_store->save()) {
            fprintf(stderr, "velvox %s: cannot save the store's archives: %s\n", m_command.c_str(), error->localizedDescription()->utf8());
            code = code ? code : ExitFailure;
        }
    }
    if (fflush(stdout) != 0 || ferror(stdout)) {
        fprintf(stderr, "velvox: cannot write the output\n");
        return code ? code : ExitFailure;
    }
    return code;
}

// MARK: Forms

std::string relativeDate(Date* date)
{
    if (!date)
        return "";
    auto text = ZUPastDateFormatter::create()->stringForObjectValue(date);
    return text ? text->str() : "";
}

std::string durationText(double seconds)
{
    if (!std::isfinite(seconds) || seconds < 0)
        return "";
    return stringWithMilliseconds(static_cast<int64_t>(seconds * 1000))->str();
}

Ref<Dictionary> jsonRecord(ZUObject& object)
{
    auto record = MutableDictionary::create();
    for (auto* descriptor : object.propertyTable().descriptors()) {
        auto value = descriptor->accessor().get(object);
        if (!value) {
            record->setObject(&Null::null(), descriptor->source().view());
            continue;
        }
        if (auto* transformer = descriptor->cachedTransformer(); transformer && transformer->allowsReverseTransformation())
            value = transformer->reverseTransformedValue(value.get());
        if (is<URL>(value.get()))
            value = downcast<URL>(value.get())->absoluteString();
        if (is<Date>(value.get()))
            value = Number::create(downcast<Date>(value.get())->timeIntervalSince1970());
        record->setObject(value ? value.get() : &Null::null(), descriptor->source().view());
    }
    return record;
}

std::string jsonText(Object& object)
{
    RefPtr<Error> error;
    RefPtr<String> text;
    if (auto* array = dynamicDowncast<Array>(&object))
        text = JSONStringWithOptions(*array, JCSerializeOptionPretty, &error);
    else if (auto* dictionary = dynamicDowncast<Dictionary>(&object))
        text = JSONStringWithOptions(*dictionary, JCSerializeOptionPretty, &error);
    return text ? text->str() + "\n" : "null\n";
}

std::string printable(const std::string& text)
{
    std::string out = printableExcerpt(text, 4096);
    for (auto& c : out) {
        if (c == '\n' || c == '\t')
            c = ' ';
    }
    return out;
}

std::string columns(const std::vector<std::vector<std::string>>& unsafeRows)
{
    std::vector<std::vector<std::string>> rows;
    rows.reserve(unsafeRows.size());
    for (auto& row : unsafeRows) {
        std::vector<std::string> cells;
        for (auto& cell : row)
            cells.push_back(printable(cell));
        rows.push_back(std::move(cells));
    }
    std::vector<size_t> widths;
    auto width = [](const std::string& text) {
        size_t count = 0;
        for (unsigned char c : text)
            count += (c & 0xC0) != 0x80; // code points, for aligned UTF-8
        return count;
    };
    for (auto& row : rows) {
        for (size_t i = 0; i < row.size(); ++i) {
            if (widths.size() <= i)
                widths.push_back(0);
            widths[i] = std::max(widths[i], std::min<size_t>(width(row[i]), 48));
        }
    }
    std::string out;
    for (auto& row : rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); ++i) {
            std::string cell = row[i];
            // Cut long cells at a code point boundary.
            if (width(cell) > 48) {
                size_t kept = 0, at = 0;
                for (; at < cell.size() && kept < 47; ++at)
                    kept += (static_cast<unsigned char>(cell[at]) & 0xC0) != 0x80;
                while (at < cell.size() && (static_cast<unsigned char>(cell[at]) & 0xC0) == 0x80)
                    ++at;
                cell = cell.substr(0, at) + "…";
            }
            line += cell;
            if (i + 1 < row.size())
                line += std::string(widths[i] - width(cell) + 2, ' ');
        }
        out += line + "\n";
    }
    return out;
}

} // namespace velvox::app
