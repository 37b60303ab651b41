/* Photogrammetric math kernel: angles and rotation matrices, solvers, planar
 * transforms, collinearity and lens distortion, orientation from control. */
#ifndef EPHO_KERNEL_H
#define EPHO_KERNEL_H

#include "epho/angles.h"
#include "epho/solvers.h"
#include "epho/planar.h"
#include "epho/collinearity.h"
#include "epho/orientation.h"

#endif /* EPHO_KERNEL_H */
