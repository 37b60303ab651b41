/* (to be filled) */
#ifndef EPHO_DTM_H
#define EPHO_DTM_H

#include "epho/base.h"

#endif /* EPHO_DTM_H */
