// Requests through the API controller, the client and the sandbox service on
// loopback, and the share of each request that the framework itself costs
// (controller, request identifier, decoding) beyond the HTTP round trip.

#include <JSONCodec/JSONCodec.h>
#include <Platform/Platform.h>
#include <Sandbox/SandboxService.h>
#include <VelvoxKit/VXAPIController.h>
#include <VelvoxKit/VXKit.h>
#include <VelvoxKit/VXResourceController.h>

#include <arpa/inet.h>
#include <chrono>
#include <filesystem>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <benchmark/benchmark.h>
#include <rapidjson/document.h>

using namespace velvox;

namespace {

sandbox::SandboxService& service()
{
    static auto* sandbox = [] {
        auto* sandbox = new sandbox::SandboxService({});
        std::string error;
        if (!sandbox->start(&error)) {
            fprintf(stderr, "cannot start the sandbox: %s\n", error.c_str());
            exit(1);
        }
        return sandbox;
    }();
    return *sandbox;
}

Ref<Dictionary> pageParameters()
{
    return Dictionary::create({ { "q", &String::empty() }, { "limit", Number::withInteger(50).ptr() }, { "offset", Number::withInteger(0).ptr() } });
}

// Kept answers go to a scratch folder, never the user's cache; `on` false
// measures full answers (the sandbox tags every answer, so a kept one would
// make every request after the first a 304).
void keepAnswers(VXVelvoxAPI& client, bool on)
{
    VXVelvoxAPI::AnswerCache cache;
    cache.enabled = on;
    cache.path = (std::filesystem::temp_directory_path() / "velvox-bench-answers").string();
    client.setAnswerCache(cache);
}

// One page of 50 tracks per request, one request at a time.
void APIPageRoundTrip(benchmark::State& state)
{
    auto client = VXVelvoxAPI::create(service().baseURL(), service().token());
    keepAnswers(*client, false);
    auto controller = VXAPIController::create(client.get());
    auto parameters = pageParameters();
    size_t items = 0;
    for (auto _ : state) {
        bool done = false;
        controller->performMethod(*String::create("GET"), *String::create("tracks"), parameters.ptr(), nullptr,
            Dictionary::create({ { VXAPICallbackBlockKey, VXAPICallbackBlockObject::create([&](VXAPIController*, Object* json, Error*) {
                                      items = json ? downcast<Array>(json)->count() : 0;
                                      done = true;
                                  }).get() } })
                .ptr());
        RunLoop::current().runUntil([&] { return done; }, 10);
    }
    state.counters["requests/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["items"] = static_cast<double>(items);
}
BENCHMARK(APIPageRoundTrip)->Unit(benchmark::kMicrosecond)->UseRealTime();

// The host's road: a track collection of 50 a page, from
// loadMoreItemsForReloadOperationType to the page's tracks in the collection
// (through the store, the controller, the client, decoding and the identity map).
// Argument 0: full answers; 1: every reload revalidated (a 304 and the kept body).
void CollectionPageRoundTrip(benchmark::State& state)
{
    static RefPtr<VXResourceController> store = [] {
        auto folder = std::filesystem::temp_directory_path() / "velvox-bench-collections";
        std::filesystem::create_directories(folder);
        setenv("XDG_DATA_HOME", folder.c_str(), 1);
        auto client = VXVelvoxAPI::create(service().baseURL(), service().token());
        auto made = VXResourceController::create(VXAPIController::create(client.get()).ptr());
        VXResourceController::setSharedResourceController(made);
        return made;
    }();
    keepAnswers(*store->apiController()->api(), state.range(0) == 1);
    auto collection = store->tracksForSearchQuery(&String::empty(), nullptr);
    collection->setPageSize(50);
    size_t items = 0;
    for (auto _ : state) {
        collection->loadMoreItemsForReloadOperationType(ZURemoteCollectionReloadOperationType::Reload, false);
        RunLoop::current().runUntil([&] { return !collection->isLoadingItems(); }, 10);
        items = collection->items().count();
    }
    state.counters["pages/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["items"] = static_cast<double>(items);
}
BENCHMARK(CollectionPageRoundTrip)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond)->UseRealTime();

// The same request straight through the URL loader: the HTTP round trip alone.
void HTTPPageRoundTrip(benchmark::State& state)
{
    URLRequest request;
    request.url = service().baseURL() + "/tracks?q=&limit=50&offset=0";
    request.headers = { { "Authorization", "OAuth " + service().token() } };
    size_t bytes = 0;
    for (auto _ : state) {
        bool done = false;
        URLTaskCallbacks callbacks;
        callbacks.didComplete = [&](URLResponse* response, Error*) {
            bytes = response ? response->body().length() : 0;
            done = true;
        };
        auto task = URLLoader::current().start(request, std::move(callbacks));
        RunLoop::current().runUntil([&] { return done; }, 10);
    }
    state.counters["requests/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["bytes"] = static_cast<double>(bytes);
}
BENCHMARK(HTTPPageRoundTrip)->Unit(benchmark::kMicrosecond)->UseRealTime();

// The same request revalidated straight through the URL loader: the floor of
// a 304 (the round trip without a body).
void HTTPNotModifiedRoundTrip(benchmark::State& state)
{
    URLRequest request;
    request.url = service().baseURL() + "/tracks?q=&limit=50&offset=0";
    request.headers = { { "Authorization", "OAuth " + service().token() } };
    auto send = [&] {
        std::string etag;
        long status = 0;
        bool done = false;
        URLTaskCallbacks callbacks;
        callbacks.didComplete = [&](URLResponse* response, Error*) {
            if (response) {
                status = response->statusCode();
                etag = response->headerValue("etag");
            }
            done = true;
        };
        auto task = URLLoader::current().start(request, std::move(callbacks));
        RunLoop::current().runUntil([&] { return done; }, 10);
        return std::pair { status, etag };
    };
    request.headers.emplace_back("If-None-Match", send().second);
    long status = 0;
    for (auto _ : state)
        status = send().first;
    state.counters["status"] = static_cast<double>(status);
}
BENCHMARK(HTTPNotModifiedRoundTrip)->Unit(benchmark::kMicrosecond)->UseRealTime();

// A client that answers at once with a recorded page: what the framework adds per request.
class InstantAPI final : public VXVelvoxAPI {
public:
    static Ref<InstantAPI> create(Ref<Data> page) { return adoptRef(*new InstantAPI(std::move(page))); }
    Ref<VXVelvoxAPI> copyWithAPIDelegate(VXVelvoxAPIDelegate* delegate) const override
    {
        auto copy = create(m_page);
        copy->setDelegate(delegate);
        return copy;
    }
    void performMethod(const String&, const String&, Dictionary*, Object* context, Dictionary* userInfo) override
    {
        delegate()->velvoxAPIDidFinishWithData(*this, m_page.ptr(), context, userInfo);
    }

private:
    explicit InstantAPI(Ref<Data> page)
        : VXVelvoxAPI("http://instant.test", "token")
        , m_page(std::move(page))
    {
    }
    Ref<Data> m_page;
};

// The page of 50 tracks as the sandbox answers it, recorded once.
Ref<Data> recordedPage()
{
    static RefPtr<Data> page = [] {
        RefPtr<Data> answer;
        URLRequest request;
        request.url = service().baseURL() + "/tracks?q=&limit=50&offset=0";
        request.headers = { { "Authorization", "OAuth " + service().token() } };
        URLTaskCallbacks callbacks;
        callbacks.didComplete = [&](URLResponse* response, Error*) { answer = response ? &response->body() : nullptr; };
        auto task = URLLoader::current().start(request, std::move(callbacks));
        RunLoop::current().runUntil([&] { return !!answer; }, 10);
        return answer;
    }();
    return *page;
}

void APIFrameworkOverhead(benchmark::State& state)
{
    auto page = recordedPage();
    auto controller = VXAPIController::create(InstantAPI::create(page).ptr());
    auto parameters = pageParameters();
    for (auto _ : state) {
        controller->performMethod(*String::create("GET"), *String::create("tracks"), parameters.ptr(), nullptr,
            Dictionary::create({ { VXAPICallbackBlockKey, VXAPICallbackBlockObject::create([&](VXAPIController*, Object* json, Error*) {
                                      benchmark::DoNotOptimize(json);
                                  }).get() } })
                .ptr());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * page->length()));
}
BENCHMARK(APIFrameworkOverhead)->Unit(benchmark::kMicrosecond);

// The decode of that page alone, as each answer gets it (a fresh decoder), and
// RapidJSON's DOM parse of the same bytes: the least any DOM decode of a page
// costs, to set beside the round trip.
void APIPageDecode(benchmark::State& state)
{
    auto page = recordedPage();
    for (auto _ : state)
        benchmark::DoNotOptimize(JSONObject(*page));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * page->length()));
}
BENCHMARK(APIPageDecode)->Unit(benchmark::kMicrosecond);

void APIPageDecodeRapidJSON(benchmark::State& state)
{
    auto page = recordedPage();
    for (auto _ : state) {
        rapidjson::Document document;
        document.Parse(reinterpret_cast<const char*>(page->bytes()), page->length());
        benchmark::DoNotOptimize(document.IsArray());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * page->length()));
}
BENCHMARK(APIPageDecodeRapidJSON)->Unit(benchmark::kMicrosecond);

} // namespace

namespace {

// Cancelling what a closed window started: 1,000 fetches under way (the
// client runs 8 of them, the rest wait their turn), all cancelled at once
// through their tokens. Only the cancelling is timed. The service is a socket
// that takes connections and never answers, so that every transfer is still
// running when it is cancelled. Goal: under 1 ms for 1,000.
void CancelPendingCalls(benchmark::State& state)
{
    int listener = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address);
    listen(listener, 4096);
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    auto client = VXVelvoxAPI::create("http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)), "token");
    keepAnswers(*client, false);
    auto store = VXResourceController::create(VXAPIController::create(client.get()).ptr());
    auto count = static_cast<int>(state.range(0));
    std::vector<Ref<String>> identifiers;
    for (int i = 0; i < count; ++i)
        identifiers.push_back(String::format("%d", 100000 + i));
    size_t leftOver = 0;
    for (auto _ : state) {
        SubscriptionSet calls;
        for (auto& identifier : identifiers)
            store->trackForIdentifier(identifier.ptr(), true, [](VXTrack*, Error*) { }, calls.add());
        RunLoop::current().runFor(0.005); // the first transfers connect and send
        auto start = std::chrono::steady_clock::now();
        calls.cancel();
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        leftOver += client->runningRequestCount() + client->queuedRequestCount();
        // Connections the cancelled transfers left behind.
        while (true) {
            int connection = accept(listener, nullptr, nullptr);
            if (connection < 0)
                break;
            close(connection);
        }
    }
    close(listener);
    state.counters["calls"] = count;
    state.counters["left under way"] = static_cast<double>(leftOver);
}
BENCHMARK(CancelPendingCalls)->Arg(1000)->UseManualTime()->Unit(benchmark::kMicrosecond);

// What the thread check at every entry point of the store costs, beside the
// cheapest entry point it guards (a lookup in the identity map).
void ThreadCheck(benchmark::State& state)
{
    ThreadAffinity affinity;
    for (auto _ : state) {
        affinity.check("Benchmark", "ThreadCheck");
        benchmark::ClobberMemory();
    }
}
BENCHMARK(ThreadCheck);

void StoreLookupWithItsCheck(benchmark::State& state)
{
    auto store = VXResourceController::create(nullptr);
    auto identifier = String::create("20005");
    store->updateCacheForResource<VXTrack>(identifier.ptr(), Dictionary::create({ { "id", Number::withInteger(20005).ptr() } }).ptr());
    for (auto _ : state)
        benchmark::DoNotOptimize(store->cachedResource<VXTrack>(identifier.ptr()));
}
BENCHMARK(StoreLookupWithItsCheck);

} // namespace

BENCHMARK_MAIN();
