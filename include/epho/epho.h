/* kzdvpholibu: photogrammetry support library. Includes every exported header. */
#ifndef EPHO_EPHO_H
#define EPHO_EPHO_H

#include "epho/autotie.h"
#include "epho/base.h"
#include "epho/block.h"
#include "epho/camera.h"
#include "epho/camerafile.h"
#include "epho/dtm.h"
#include "epho/fiducial.h"
#include "epho/geodesy.h"
#include "epho/kernel.h"
#include "epho/matching.h"
#include "epho/orientation.h"
#include "epho/pyramid.h"
#include "epho/reprojection.h"
#include "epho/sensors.h"
#include "epho/triangulation.h"

#endif /* EPHO_EPHO_H */
