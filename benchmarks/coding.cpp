// A description's making, encoding and decoding: the time, and how often memory is asked for.

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "QuorvaSDK/Encodable+Extensions.h"
#include "QuorvaSDK/QVDynamicLinkBuilder.h"
#include "QuorvaSDK/ServiceRecords.h"

namespace {
std::atomic<long> allocations;
}

[[gnu::noinline]] void* operator new(std::size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

namespace {

using quorva::QVDynamicLinkBuilder;

template <class Work>
void measure(benchmark::State& state, const Work& work) {
  const long before = allocations;
  for (auto _ : state) benchmark::DoNotOptimize(work());
  state.counters["allocations"] = benchmark::Counter(static_cast<double>(allocations - before),
                                                     benchmark::Counter::kAvgIterations);
}

QVDynamicLinkBuilder chain(const QVDynamicLinkBuilder& link) {
  return link.setLinkName("Spring shoes")
      .setSelectedPath("spring")
      .setIOSBehaviour(quorva::QVDynamicLinkBehaviour::browser)
      .setAndroidBehaviour(quorva::QVDynamicLinkBehaviour::browser)
      .setSocialTitle("Shoes")
      .setSocialDescription("New in")
      .setSocialImageUrl("https://shop.example/shoes.png")
      .setUTMSource("newsletter")
      .setUTMMedium("email")
      .setUTMCampaign("spring")
      .setUTMContent("banner")
      .setUTMTerm("shoes")
      .build();
}

const QVDynamicLinkBuilder& plain() {
  static const QVDynamicLinkBuilder link("https://shop.example/shoes", "go.shop.example");
  return link;
}

void construct(benchmark::State& state) {
  measure(state,
          [] { return QVDynamicLinkBuilder("https://shop.example/shoes", "go.shop.example"); });
}
BENCHMARK(construct);

void setters(benchmark::State& state) {
  measure(state, [] { return chain(plain()); });
}
BENCHMARK(setters);

void encode(benchmark::State& state) {
  measure(state, [link = chain(plain())] {
    return quorva::platform::serializeJSON(quorva::toDictionary(link).value());
  });
}
BENCHMARK(encode);

void decode(benchmark::State& state) {
  measure(state, [] {
    return quorva::platform::decodeText<quorva::CreateDynaminLinkResponse>(
        R"({"status": "success", "message": "created",)"
        R"( "short_url": "https://go.shop.example/spring"})");
  });
}
BENCHMARK(decode);

}  // namespace
