// The JSON codec against its peers, in one run: decode to a full tree, decode
// and walk every node, encode compact text. Each benchmark also reports the
// heap allocations of one decode.

#include "AllocationCounter.h"

#include <JSONCodec/JSONCodec.h>
#include <Platform/Platform.h>

#include <benchmark/benchmark.h>
#include <cJSON.h>
#include <nlohmann/json.hpp>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <simdjson.h>
#include <yajl/yajl_tree.h>

#include <chrono>
#include <fstream>
#include <malloc.h>
#include <sstream>

using namespace velvox;

namespace {

struct Sample {
    std::string name;
    std::string text;
    simdjson::padded_string padded;
};

std::vector<std::unique_ptr<Sample>>& samples()
{
    static std::vector<std::unique_ptr<Sample>> list;
    return list;
}

void loadSamples()
{
    for (auto name : { "twitter", "citm_catalog", "canada", "api_page", "api_large" }) {
        std::ifstream file(std::string(VELVOX_SHARED_DATA) + "/json/" + name + ".json", std::ios::binary);
        std::stringstream contents;
        contents << file.rdbuf();
        auto sample = std::make_unique<Sample>();
        sample->name = name;
        sample->text = contents.str();
        sample->padded = simdjson::padded_string(sample->text);
        if (sample->text.empty()) {
            fprintf(stderr, "cannot read %s.json\n", name);
            exit(1);
        }
        samples().push_back(std::move(sample));
    }
}

// Allocations made by one call of the action.
template<typename Action>
double allocationsOf(Action&& action)
{
    uint64_t before = bench::allocationCount();
    action();
    return static_cast<double>(bench::allocationCount() - before);
}

void finish(benchmark::State& state, const Sample& sample, double allocations)
{
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(sample.text.size()));
    state.counters["allocs"] = allocations;
}

// MARK: Walkers: visit every node, count them and touch every string.

struct WalkResult {
    size_t nodes { 0 };
    size_t bytes { 0 };
};

void walkVelvox(const Object* object, WalkResult& result)
{
    ++result.nodes;
    // The codec's collections are walked in place; the tag says what an object is without a virtual call.
    switch (object->tag()) {
    case JCArray::s_tag: {
        auto* array = static_cast<const JCArray*>(object);
        size_t count = array->count();
        Object* const* elements = array->objects();
        for (size_t i = 0; i < count; ++i)
            walkVelvox(elements[i], result);
        return;
    }
    case JCDictionary::s_tag: {
        auto* dictionary = static_cast<const JCDictionary*>(object);
        const JCHashTableEntry* entries = dictionary->entries();
        for (size_t i = 0, capacity = dictionary->capacity(); i < capacity; ++i) {
            if (entries[i].key) {
                walkVelvox(entries[i].key, result);
                walkVelvox(entries[i].object, result);
            }
        }
        return;
    }
    case ObjectTag::String:
        result.bytes += static_cast<const String*>(object)->length();
        return;
    case ObjectTag::Number:
        result.bytes += static_cast<size_t>(static_cast<const Number*>(object)->doubleValue()) & 1;
        return;
    default:
        break;
    }
    if (auto* dictionary = dynamicDowncast<Dictionary>(object)) {
        for (auto& entry : *dictionary) {
            walkVelvox(entry.key, result);
            walkVelvox(entry.object, result);
        }
    } else if (auto* array = dynamicDowncast<Array>(object)) {
        for (auto* element : *array)
            walkVelvox(element, result);
    }
}

void walkRapid(const rapidjson::Value& value, WalkResult& result)
{
    ++result.nodes;
    if (value.IsArray()) {
        for (auto& element : value.GetArray())
            walkRapid(element, result);
    } else if (value.IsObject()) {
        for (auto& member : value.GetObject()) {
            ++result.nodes;
            result.bytes += member.name.GetStringLength();
            walkRapid(member.value, result);
        }
    } else if (value.IsString())
        result.bytes += value.GetStringLength();
    else if (value.IsNumber())
        result.bytes += static_cast<size_t>(value.GetDouble()) & 1;
}

void walkSimd(simdjson::dom::element element, WalkResult& result)
{
    ++result.nodes;
    switch (element.type()) {
    case simdjson::dom::element_type::ARRAY:
        for (auto child : simdjson::dom::array(element))
            walkSimd(child, result);
        break;
    case simdjson::dom::element_type::OBJECT:
        for (auto field : simdjson::dom::object(element)) {
            ++result.nodes;
            result.bytes += field.key.size();
            walkSimd(field.value, result);
        }
        break;
    case simdjson::dom::element_type::STRING:
        result.bytes += std::string_view(element).size();
        break;
    case simdjson::dom::element_type::DOUBLE:
    case simdjson::dom::element_type::INT64:
    case simdjson::dom::element_type::UINT64:
        result.bytes += static_cast<size_t>(double(element)) & 1;
        break;
    default:
        break;
    }
}

void walkNlohmann(const nlohmann::json& value, WalkResult& result)
{
    ++result.nodes;
    if (value.is_array()) {
        for (auto& element : value)
            walkNlohmann(element, result);
    } else if (value.is_object()) {
        for (auto& [key, member] : value.items()) {
            ++result.nodes;
            result.bytes += key.size();
            walkNlohmann(member, result);
        }
    } else if (value.is_string())
        result.bytes += value.get_ref<const std::string&>().size();
    else if (value.is_number())
        result.bytes += static_cast<size_t>(value.get<double>()) & 1;
}

void walkCJSON(const cJSON* item, WalkResult& result)
{
    ++result.nodes;
    if (item->string) {
        ++result.nodes;
        result.bytes += strlen(item->string);
    }
    if (cJSON_IsArray(item) || cJSON_IsObject(item)) {
        for (auto* child = item->child; child; child = child->next)
            walkCJSON(child, result);
    } else if (cJSON_IsString(item))
        result.bytes += strlen(item->valuestring);
    else if (cJSON_IsNumber(item))
        result.bytes += static_cast<size_t>(item->valuedouble) & 1;
}

void walkYajl(yajl_val value, WalkResult& result)
{
    ++result.nodes;
    if (YAJL_IS_ARRAY(value)) {
        for (size_t i = 0; i < value->u.array.len; ++i)
            walkYajl(value->u.array.values[i], result);
    } else if (YAJL_IS_OBJECT(value)) {
        for (size_t i = 0; i < value->u.object.len; ++i) {
            ++result.nodes;
            result.bytes += strlen(value->u.object.keys[i]);
            walkYajl(value->u.object.values[i], result);
        }
    } else if (YAJL_IS_STRING(value))
        result.bytes += strlen(value->u.string);
    else if (YAJL_IS_NUMBER(value))
        result.bytes += static_cast<size_t>(YAJL_GET_DOUBLE(value)) & 1;
}

// MARK: Decoders. Each answers through `walk` whether to walk the tree.

void velvoxDecode(benchmark::State& state, const Sample* sample, bool walk)
{
    // One decoder for the whole run, as a client keeps one for its feed.
    auto decoder = JSONDecoder::decoder();
    auto once = [&] {
        auto result = decoder->objectWithUTF8String(sample->text);
        if (!result)
            state.SkipWithError("decode failed");
        if (walk) {
            WalkResult counts;
            walkVelvox(result.get(), counts);
            benchmark::DoNotOptimize(counts);
        }
        benchmark::DoNotOptimize(result.get());
    };
    uint64_t objectsBefore = detail::smallAllocationCount();
    double cold = allocationsOf([&] {
        auto fresh = JSONDecoder::decoder();
        auto result = fresh->objectWithUTF8String(sample->text);
    });
    double coldObjects = static_cast<double>(detail::smallAllocationCount() - objectsBefore);
    once(); // the cache is warm from here on, as in a client's steady state
    objectsBefore = detail::smallAllocationCount();
    double warm = allocationsOf(once);
    double warmObjects = static_cast<double>(detail::smallAllocationCount() - objectsBefore);
    for (auto _ : state)
        once();
    finish(state, *sample, warm);
    state.counters["allocs_fresh_decoder"] = cold;
    // Objects made (strings, numbers, collections): what the cache saves shows here,
    // since freed memory is reused and malloc is seldom asked.
    state.counters["objects"] = warmObjects;
    state.counters["objects_fresh_decoder"] = coldObjects;
}

void rapidDecode(benchmark::State& state, const Sample* sample, bool walk)
{
    auto once = [&] {
        rapidjson::Document document;
        document.Parse(sample->text.data(), sample->text.size());
        if (document.HasParseError())
            state.SkipWithError("decode failed");
        if (walk) {
            WalkResult counts;
            walkRapid(document, counts);
            benchmark::DoNotOptimize(counts);
        }
    };
    double allocations = allocationsOf(once);
    for (auto _ : state)
        once();
    finish(state, *sample, allocations);
}

void simdDecode(benchmark::State& state, const Sample* sample, bool walk)
{
    simdjson::dom::parser parser;
    auto once = [&] {
        simdjson::dom::element root;
        if (parser.parse(sample->padded).get(root))
            state.SkipWithError("decode failed");
        if (walk) {
            WalkResult counts;
            walkSimd(root, counts);
            benchmark::DoNotOptimize(counts);
        }
    };
    once();
    double allocations = allocationsOf(once);
    for (auto _ : state)
        once();
    finish(state, *sample, allocations);
}

void nlohmannDecode(benchmark::State& state, const Sample* sample, bool walk)
{
    auto once = [&] {
        auto document = nlohmann::json::parse(sample->text);
        if (walk) {
            WalkResult counts;
            walkNlohmann(document, counts);
            benchmark::DoNotOptimize(counts);
        }
        benchmark::DoNotOptimize(document);
    };
    double allocations = allocationsOf(once);
    for (auto _ : state)
        once();
    finish(state, *sample, allocations);
}

void cjsonDecode(benchmark::State& state, const Sample* sample, bool walk)
{
    auto once = [&] {
        cJSON* document = cJSON_ParseWithLength(sample->text.data(), sample->text.size());
        if (!document)
            state.SkipWithError("decode failed");
        else if (walk) {
            WalkResult counts;
            walkCJSON(document, counts);
            benchmark::DoNotOptimize(counts);
        }
        cJSON_Delete(document);
    };
    double allocations = allocationsOf(once);
    for (auto _ : state)
        once();
    finish(state, *sample, allocations);
}

void yajlDecode(benchmark::State& state, const Sample* sample, bool walk)
{
    auto once = [&] {
        char message[256];
        yajl_val document = yajl_tree_parse(sample->text.c_str(), message, sizeof(message));
        if (!document)
            state.SkipWithError("decode failed");
        else if (walk) {
            WalkResult counts;
            walkYajl(document, counts);
            benchmark::DoNotOptimize(counts);
        }
        yajl_tree_free(document);
    };
    double allocations = allocationsOf(once);
    for (auto _ : state)
        once();
    finish(state, *sample, allocations);
}

// Only the release of a decoded tree (the decode itself is not timed).
void velvoxDestroy(benchmark::State& state, const Sample* sample)
{
    auto decoder = JSONDecoder::decoder();
    decoder->objectWithUTF8String(sample->text);
    for (auto _ : state) {
        auto tree = decoder->objectWithUTF8String(sample->text);
        auto start = std::chrono::steady_clock::now();
        tree = nullptr;
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
}

// MARK: Memory

// A large page decoded and freed, then a small one: what the thread's empty
// slabs still hold after each step, and the free room left inside slabs that
// still hold objects; the heap in use (malloc's count and the slabs) after the
// small page, and the heap a large tree occupies per byte of its text.
void velvoxMemory(benchmark::State& state, const Sample* large, const Sample* small)
{
    auto heapInUse = [] {
        return mallinfo2().uordblks + detail::smallObjectMappedBytes() - detail::smallObjectListBytes();
    };
    auto decoder = JSONDecoder::decoder();
    double heldAfterFree = 0, heldAfterNextParse = 0, slackAfterNextParse = 0, heapAfterNextParse = 0, treeBytesPerInputByte = 0;
    for (auto _ : state) {
        size_t heapBefore = heapInUse();
        auto tree = decoder->objectWithUTF8String(large->text);
        size_t heapWithTree = heapInUse();
        treeBytesPerInputByte = static_cast<double>(heapWithTree - std::min(heapWithTree, heapBefore)) / large->text.size();
        tree = nullptr;
        heldAfterFree = static_cast<double>(detail::smallObjectListBytes());
        auto page = decoder->objectWithUTF8String(small->text);
        heldAfterNextParse = static_cast<double>(detail::smallObjectListBytes());
        slackAfterNextParse = static_cast<double>(detail::smallObjectSlackBytes());
        heapAfterNextParse = static_cast<double>(heapInUse());
        benchmark::DoNotOptimize(page.get());
    }
    state.counters["empty_slab_bytes_after_free"] = heldAfterFree;
    state.counters["empty_slab_bytes_after_next_parse"] = heldAfterNextParse;
    state.counters["slack_bytes_after_next_parse"] = slackAfterNextParse;
    state.counters["heap_in_use_after_next_parse"] = heapAfterNextParse;
    state.counters["tree_heap_per_input_byte"] = treeBytesPerInputByte;
}

void rapidMemory(benchmark::State& state, const Sample* large, const Sample*)
{
    double perByte = 0;
    for (auto _ : state) {
        size_t before = mallinfo2().uordblks;
        rapidjson::Document document;
        document.Parse(large->text.data(), large->text.size());
        perByte = static_cast<double>(mallinfo2().uordblks - before) / large->text.size();
        benchmark::DoNotOptimize(&document);
    }
    state.counters["tree_heap_per_input_byte"] = perByte;
}

// MARK: Encoders

// Each writer keeps its output buffer from one encode to the next, as a
// client that serialises often would.
void velvoxEncode(benchmark::State& state, const Sample* sample)
{
    auto tree = JSONDecoder::decoder()->objectWithUTF8String(sample->text);
    JCEncodeBuffer buffer;
    for (auto _ : state) {
        if (!jc_encodeInto(tree.get(), JCSerializeOptionNone, buffer))
            state.SkipWithError("encode failed");
        benchmark::DoNotOptimize(buffer.bytes());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * buffer.length()));
}

// The one-call form that answers a new Data object each time.
void velvoxEncodeData(benchmark::State& state, const Sample* sample)
{
    auto tree = JSONDecoder::decoder()->objectWithUTF8String(sample->text);
    size_t bytes = 0;
    for (auto _ : state) {
        auto data = jc_encode(tree.get(), JCSerializeOptionNone, JCEncodeAsData, nullptr);
        bytes = downcast<Data>(data.get())->length();
        benchmark::DoNotOptimize(data.get());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

void rapidEncode(benchmark::State& state, const Sample* sample)
{
    rapidjson::Document document;
    document.Parse(sample->text.data(), sample->text.size());
    size_t bytes = 0;
    rapidjson::StringBuffer buffer;
    for (auto _ : state) {
        buffer.Clear();
        rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
        document.Accept(writer);
        bytes = buffer.GetSize();
        benchmark::DoNotOptimize(buffer.GetString());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

void simdEncode(benchmark::State& state, const Sample* sample)
{
    simdjson::dom::parser parser;
    simdjson::dom::element root = parser.parse(sample->padded);
    size_t bytes = 0;
    for (auto _ : state) {
        std::string text = simdjson::to_string(root);
        bytes = text.size();
        benchmark::DoNotOptimize(text.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

void nlohmannEncode(benchmark::State& state, const Sample* sample)
{
    auto document = nlohmann::json::parse(sample->text);
    size_t bytes = 0;
    for (auto _ : state) {
        std::string text = document.dump();
        bytes = text.size();
        benchmark::DoNotOptimize(text.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

void cjsonEncode(benchmark::State& state, const Sample* sample)
{
    cJSON* document = cJSON_ParseWithLength(sample->text.data(), sample->text.size());
    size_t bytes = 0;
    for (auto _ : state) {
        char* text = cJSON_PrintUnformatted(document);
        bytes = strlen(text);
        benchmark::DoNotOptimize(text);
        cJSON_free(text);
    }
    cJSON_Delete(document);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

} // namespace

int main(int argc, char** argv)
{
    loadSamples();
    using Decoder = void (*)(benchmark::State&, const Sample*, bool);
    const std::pair<const char*, Decoder> decoders[] = {
        { "VelvoxKit", velvoxDecode },
        { "RapidJSON", rapidDecode },
        { "simdjson", simdDecode },
        { "nlohmann", nlohmannDecode },
        { "cJSON", cjsonDecode },
        { "yajl", yajlDecode },
    };
    using Encoder = void (*)(benchmark::State&, const Sample*);
    const std::pair<const char*, Encoder> encoders[] = {
        { "VelvoxKit", velvoxEncode },
        { "RapidJSON", rapidEncode },
        { "simdjson", simdEncode },
        { "nlohmann", nlohmannEncode },
        { "cJSON", cjsonEncode },
    };
    for (auto& sample : samples()) {
        for (auto [name, decode] : decoders) {
            benchmark::RegisterBenchmark((std::string("Decode/") + name + "/" + sample->name).c_str(), decode, sample.get(), false)
                ->Unit(benchmark::kMicrosecond);
        }
        for (auto [name, decode] : decoders) {
            benchmark::RegisterBenchmark((std::string("DecodeWalk/") + name + "/" + sample->name).c_str(), decode, sample.get(), true)
                ->Unit(benchmark::kMicrosecond);
        }
        for (auto [name, encode] : encoders) {
            benchmark::RegisterBenchmark((std::string("Encode/") + name + "/" + sample->name).c_str(), encode, sample.get())
                ->Unit(benchmark::kMicrosecond);
        }
        benchmark::RegisterBenchmark((std::string("EncodeData/VelvoxKit/") + sample->name).c_str(), velvoxEncodeData, sample.get())
            ->Unit(benchmark::kMicrosecond);
        benchmark::RegisterBenchmark((std::string("Destroy/VelvoxKit/") + sample->name).c_str(), velvoxDestroy, sample.get())
            ->Unit(benchmark::kMicrosecond)
            ->UseManualTime();
    }
    const Sample* large = samples()[4].get();
    const Sample* page = samples()[3].get();
    benchmark::RegisterBenchmark("Memory/VelvoxKit/api_large", velvoxMemory, large, page)->Unit(benchmark::kMillisecond)->Iterations(5);
    benchmark::RegisterBenchmark("Memory/RapidJSON/api_large", rapidMemory, large, page)->Unit(benchmark::kMillisecond)->Iterations(5);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
