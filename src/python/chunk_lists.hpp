#pragma once

// Lists of chunks across the boundary, shared by the bindings of the generation library.

#include "orvo_generation/reference_formatter/reference_formatter.hpp"
#include "python_support.hpp"

namespace orvo_python {

/// A Python list of the chunks' own Python objects.
py::object chunks_to_py(const orvo_generation::reference_formatter::Chunks& chunks);

/// The chunks of a Python list or tuple; anything else, or an element that is no `Chunk`, is a
/// `TypeError`.
orvo_generation::reference_formatter::Chunks chunks_from_py(py::handle value);

/// Binds the reference building blocks that are not components: Markdown entries, merged
/// sources, scores and their calibration, inline citations.
void bind_reference_tools(py::module_& m);

}  // namespace orvo_python
