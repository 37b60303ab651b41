#include "common.h"
void BindTriangulation(py::module_&) {}
