/* (to be filled) */
#ifndef EPHO_SOLVERS_H
#define EPHO_SOLVERS_H

#include "epho/base.h"

#endif /* EPHO_SOLVERS_H */
