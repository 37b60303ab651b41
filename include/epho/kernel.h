/* Photogrammetric math kernel: angles and rotation matrices, solvers, planar
 * transforms, collinearity and lens distortion.
 * (Resection, intersection and DLT are in epho/orientation.h.) */
#ifndef EPHO_KERNEL_H
#define EPHO_KERNEL_H

#include "epho/angles.h"
#include "epho/collinearity.h"
#include "epho/planar.h"
#include "epho/solvers.h"

#endif /* EPHO_KERNEL_H */
