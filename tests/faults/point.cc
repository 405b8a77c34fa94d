#include "tests/faults/point.h"

#include <sstream>
#include <stdexcept>

#include "tests/faults/system_calls.h"

namespace {

Role RoleOf(const std::string& name) {
  for (const Role role : kRoles) {
    if (name == NameOf(role)) return role;
  }
  throw std::invalid_argument("no process is called " + name);
}

std::string FaultOf(const Point& point) {
  switch (point.kind) {
    case Point::Kind::kError:
      return ErrorName(point.error);
    case Point::Kind::kLasting:
      return ErrorName(point.error) + "+";
    case Point::Kind::kShort:
      return "short";
    case Point::Kind::kKill:
      return "kill";
    case Point::Kind::kUndisturbed:
      break;
  }
  return "none";
}

void SetFault(Point& point, std::string fault) {
  if (fault == "short") {
    point.kind = Point::Kind::kShort;
  } else if (fault == "kill") {
    point.kind = Point::Kind::kKill;
  } else {
    point.kind = Point::Kind::kError;
    if (fault.ends_with('+')) {
      point.kind = Point::Kind::kLasting;
      fault.pop_back();
    }
    point.error = ErrorNumber(fault);
  }
}

}  // namespace

std::string_view NameOf(Role role) {
  switch (role) {
    case Role::kDaemon:
      return "daemon";
    case Role::kChild:
      return "child";
    case Role::kScript:
      return "script";
    case Role::kCopy:
      return "copy";
    case Role::kNone:
      break;
  }
  return "other";
}

std::string Point::Text() const {
  if (kind == Kind::kUndisturbed) return scenario;
  const SystemCall* entry = FindCall(call);
  return scenario + ":" + std::string(NameOf(role)) + ":" +
         (entry != nullptr ? std::string(entry->name) : std::to_string(call)) + "#" +
         std::to_string(occurrence) + ":" + FaultOf(*this);
}

Point Point::Parse(const std::string& text) {
  std::istringstream in(text);
  Point point;
  std::string role;
  std::string name;
  std::string number;
  std::string fault;
  std::getline(in, point.scenario, ':');
  if (in.eof()) return point;
  std::getline(in, role, ':');
  std::getline(in, name, '#');
  std::getline(in, number, ':');
  if (!std::getline(in, fault)) throw std::invalid_argument("not a point: " + text);
  const SystemCall* call = FindCall(name);
  if (call == nullptr) throw std::invalid_argument("no system call is called " + name);
  point.role = RoleOf(role);
  point.call = call->number;
  point.occurrence = std::stoi(number);
  SetFault(point, fault);
  return point;
}
