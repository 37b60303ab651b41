/* (to be filled) */
#ifndef EPHO_ORIENTATION_H
#define EPHO_ORIENTATION_H

#include "epho/base.h"

#endif /* EPHO_ORIENTATION_H */
