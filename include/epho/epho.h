/* kzdvpholibu: photogrammetry support library. Includes every exported header. */
#ifndef EPHO_EPHO_H
#define EPHO_EPHO_H

#include "epho/base.h"

#endif /* EPHO_EPHO_H */
