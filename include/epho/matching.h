/* (to be filled) */
#ifndef EPHO_MATCHING_H
#define EPHO_MATCHING_H

#include "epho/base.h"

#endif /* EPHO_MATCHING_H */
