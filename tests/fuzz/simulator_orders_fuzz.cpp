// Any lines as orders to a simulated driver: each is refused or obeyed, what is queued is handed
// over, and after lost changes of a tracked file a message says so before the driver is idle.
#include <algorithm>
#include <cstdlib>
#include <string>
#include <string_view>

#include "simulator/driver_model.h"

namespace {

void Require(bool condition) {
  if (!condition) std::abort();
}

// Hands everything over and has it processed; whether some message told of unreported changes.
bool Drain(zel::sim::DriverModel& model) {
  bool told = false;
  while (const zel::sim::Message* const message = model.Offer(UINT64_MAX)) {
    zel::sim::EventMessage event = {};
    if (message->bytes.size() == sizeof event) {
      std::memcpy(&event, message->bytes.data(), sizeof event);
      told = told || event.unreported_changes != 0;
    }
    const std::uint64_t id = zel::sim::MessageIdOf(message->bytes.data(), message->bytes.size());
    model.HandedOver();
    model.Received(id);
    model.Processed(id);
  }
  return told;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  const zel::FileKey file = {{0x01234567, 0x89AB, 0xCDEF, {1, 2, 3, 4, 5, 6, 7, 8}}, 1};
  zel::sim::DriverModel model([&] { return zel::sim::TrackedFiles{file}; }, 1, true);
  model.Connect();
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  while (!rest.empty()) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    zel::sim::Order order;
    std::string fault;
    if (!zel::sim::ParseOrder(line, order, fault)) {
      Require(!fault.empty());
      continue;
    }
    Require(!model.Obey(order, 2).empty());
  }
  zel::sim::Order order;
  std::string fault;
  for (const char* line : {"release", "drop 0", "corrupt magic 0", "delay 0"}) {
    Require(zel::sim::ParseOrder(line, order, fault));
    Require(model.Obey(order, 2) == "ok");
  }
  Drain(model);
  Require(model.Idle());
  order.verb = zel::sim::Verb::kUnreported;
  order.file = file;
  Require(model.Obey(order, 2) == "ok");
  Require(Drain(model));
  return 0;
}
