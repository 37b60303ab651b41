/* (to be filled) */
#ifndef EPHO_COLLINEARITY_H
#define EPHO_COLLINEARITY_H

#include "epho/base.h"

#endif /* EPHO_COLLINEARITY_H */
