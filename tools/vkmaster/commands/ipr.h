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
  bool lift = false;  ///< lift the rate limits that this session does not know
  bool plot = true;
};

/// WELLS [bhp|thp] [skewness X] [components N|all] [lift|keep] [no-plot]
IPROrder ParseIPROrder(const Words& arguments);

Parsed ParseIPR(const Words& arguments);

/// Builds the tables. The daemon opens the wells for that and leaves them cut back to the rate of
/// the last point. Unless the order says keep, the wells then get their earlier statuses and the
/// rate limits that this session set. Limits that the model set cannot be known: unless the order
/// says lift, wells that may have such limits are refused.
Result BuildIPR(Session& session, const IPROrder& order);

}  // namespace vkmaster
