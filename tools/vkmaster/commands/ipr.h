#pragma once

#include "tools/vkmaster/commands/command.h"

namespace vkmaster {

/// What the command ipr was asked for.
struct IPROrder {
  Words wells;
  bool bottom_hole = true;
  double skewness = 1;
  int components = 0;
  bool all_components = false;
  bool keep = false;  ///< leave the wells as the tables left them
  bool plot = true;
};

/// WELLS [bhp|thp] [skewness X] [components N|all] [keep] [no-plot]
IPROrder ParseIPROrder(const Words& arguments);

Action ParseIPR(const Words& arguments);

/// Builds the tables. They take the wells through ever lower rates and leave them open and cut
/// back; unless the order says keep, the statuses from before are set again, and the rate limits
/// to what this session set or else out of the way.
Result BuildIPR(Session& session, const IPROrder& order);

}  // namespace vkmaster
