#include "bench/whole/conversation.h"

#include <cstdint>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "bench/whole/plan.h"
#include "net/master_link.h"
#include "tests/support/bytes.h"
#include "tests/support/wire_bytes.h"

namespace bench {
namespace {

class PlanWriter {
 public:
  explicit PlanWriter(const std::string& file) : out_(file, std::ios::binary) {}

  void Add(plan::Action action, const std::string& bytes) {
    const std::uint64_t size = bytes.size();
    out_.put(static_cast<char>(action));
    out_.write(reinterpret_cast<const char*>(&size), sizeof(size));
    if (plan::Sends(action)) out_.write(bytes.data(), static_cast<std::streamsize>(size));
  }

  void Add(const Step& step) {
    Add(plan::kFromMaster, step.request);
    for (const Exchange& exchange : step.exchanges) {
      Add(plan::kToSimulator, exchange.query);
      Add(plan::kFromSimulator, exchange.answer);
    }
    Add(plan::kToMaster, step.reply);
  }

  void Close() {
    out_.close();
    if (!out_) throw std::runtime_error("cannot write the plan");
  }

 private:
  std::ofstream out_;
};

}  // namespace

std::vector<Exchange> Flow::Exchanges() const {
  std::vector<Exchange> all;
  for (const Step& step : steps) {
    all.insert(all.end(), step.exchanges.begin(), step.exchanges.end());
  }
  return all;
}

Step SetUp() {
  using wire::Cstr;
  using wire::Doub;
  using wire::Framed;
  using wire::Inte;
  using wire::Mess;
  const std::string end = Mess("END");
  Step step;
  step.request = Frame(Image(master_link::kConnect));
  step.exchanges.push_back(
      {"", Framed(Mess("STARTED") + Cstr("ERRORS", {}) + end) +
               Framed(Mess("STEP") + Cstr("POSITION", {"MODEL_DEFINITION"}) + Doub("TIME", {0}) +
                      Inte("DATE", {2026, 1, 1, 0, 0, 0}) + end)});
  return step;
}

std::string RunRequest(const std::string& path) {
  std::string lines = Frame("3");
  for (const char* line : {"0", path.c_str(), "CASE", "1", "20172", "engineer", "0"}) {
    lines += Frame(line);
  }
  return lines;
}

void WritePlan(const std::string& file, const Step& set_up, const Flow& flow) {
  PlanWriter plan(file);
  plan.Add(set_up);
  plan.Add(plan::kLoop, "");
  for (const Step& step : flow.steps) plan.Add(step);
  plan.Close();
}

}  // namespace bench
