#pragma once

// The event module: events, handlers and the emitter.
#include "orvo_core/event/event_emitter.hpp"
#include "orvo_core/event/event_handler.hpp"
