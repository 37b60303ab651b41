/* (to be filled) */
#ifndef EPHO_FIDUCIAL_H
#define EPHO_FIDUCIAL_H

#include "epho/base.h"

#endif /* EPHO_FIDUCIAL_H */
