// How the surfaces of things look.
#pragma once

#include "scene/Things.h"

namespace scene {

// Fields of the chart are numbered from 0, row by row; -1 is its frame.
int patchAt(double u, double v);

// The share of each colour of light that is reflected.
Vector colorOf(const Hit& hit);

// How glossy something is: the share of light that it mirrors when looked at straight.
double glossOf(Matter matter);

// The normal, for what is not smooth.
Vector roughened(const Hit& hit);

}  // namespace scene
