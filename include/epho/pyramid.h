/* (to be filled) */
#ifndef EPHO_PYRAMID_H
#define EPHO_PYRAMID_H

#include "epho/base.h"

#endif /* EPHO_PYRAMID_H */
