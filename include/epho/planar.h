/* (to be filled) */
#ifndef EPHO_PLANAR_H
#define EPHO_PLANAR_H

#include "epho/base.h"

#endif /* EPHO_PLANAR_H */
