#include "vk_ec/client.h"

#include <algorithm>
#include <stdexcept>
#include <vector>

namespace vk_ec {

using Strings = std::vector<std::string>;

void Client::connect(const std::string& host, unsigned port, unsigned timeout) {
  if (position_info_.position != AlgPos::UNCONNECTED) {
    throw std::invalid_argument("Already connected to VARNOK.");
  }
  transporter_.connect(host, port, timeout);
  set_up();
}

void Client::set_up() {
  messages_.createMessageBuilder()
      .add_MESS_header("SETUP", 0)
      .add_string("VERSION", "V2")
      .add_MESS_header("END", 0)
      .send();

  auto answer = messages_.createMessageDecoder();
  answer.get_header().check_expectation_MESS("STARTED", 0);
  const Strings errors = answer.get_header_and_data<std::string>("ERRORS");
  answer.get_header().check_expectation_MESS("END", 0);
  answer.finalize();

  if (!errors.empty()) throw std::invalid_argument(errors.front());
  position_info_.position = AlgPos::STARTING;
  read_vk_answer();
}

void Client::do_continue() {
  messages_.createMessageBuilder().add_MESS_header("CONTINUE", 0).add_MESS_header("END", 0).send();
  read_vk_answer();
}

void Client::do_continue_until(double time) {
  messages_.createMessageBuilder()
      .add_MESS_header("CONTINUE_UNTIL", 0)
      .add_data("TIME", std::vector<double>{time})
      .add_MESS_header("END", 0)
      .send();
  read_vk_answer();
}

void Client::do_shutdown() {
  messages_.createMessageBuilder().add_MESS_header("SHUTDOWN", 0).add_MESS_header("END", 0).send();
  read_vk_answer();
}

void Client::read_READY_answer() {
  auto answer = messages_.createMessageDecoder();
  answer.get_header().check_expectation_MESS("READY", 0);
  answer.get_header().check_expectation_MESS("END", 0);
  answer.finalize();
}

void Client::read_vk_answer() {
  auto answer = messages_.createMessageDecoder();
  const auto header = answer.get_header();
  header.check_expectation_MESS(0);
  if (header.name == "STEP") {
    read_STEP_answer(answer);
  } else if (header.name == "FINISHED") {
    answer.get_header().check_expectation_MESS("END", 0);
    position_info_.position = AlgPos::END_SIMULATE;
  } else {
    throw std::invalid_argument("Incorrect header received (" + header.name + ")");
  }
  answer.finalize();
}

void Client::read_STEP_answer(MessageMgr::MessageDecoder& answer) {
  position_info_.position =
      PositionInfo::to_AlgPos(answer.get_header_and_data<std::string>("POSITION", 1).front());
  position_info_.time = answer.get_header_and_data<double>("TIME", 1).front();
  const auto date = answer.get_header_and_data<int>("DATE", position_info_.date.size());
  std::copy(date.begin(), date.end(), position_info_.date.begin());
  answer.get_header().check_expectation_MESS("END", 0);
}

void Client::throw_invalid_argument(const std::string& function, int a, int b, unsigned long size_a,
                                    unsigned long size_b) {
  throw std::invalid_argument(function + ": inconsistent size of arguments " + std::to_string(a) +
                              " and " + std::to_string(b) + " (" + std::to_string(size_a) + " vs " +
                              std::to_string(size_b) + ")");
}

}  // namespace vk_ec
