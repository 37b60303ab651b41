/* (to be filled) */
#ifndef EPHO_ANGLES_H
#define EPHO_ANGLES_H

#include "epho/base.h"

#endif /* EPHO_ANGLES_H */
