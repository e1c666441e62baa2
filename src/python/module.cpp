#include "python_support.hpp"

PYBIND11_MODULE(_native, m) {
  m.doc() = "The C++ side of orvo: values, components and collaborators.";
  orvo_python::bind_core(m);
  orvo_python::bind_inference(m);
  orvo_python::bind_generation(m);
}
