#pragma once

// The event module: events, the emitter and its handlers.
#include "orvo_core/event/collecting_handler.hpp"
#include "orvo_core/event/console_handler.hpp"
#include "orvo_core/event/event_emitter.hpp"
#include "orvo_core/event/event_handler.hpp"
#include "orvo_core/event/json_lines_handler.hpp"
