/* (to be filled) */
#ifndef EPHO_CAMERAFILE_H
#define EPHO_CAMERAFILE_H

#include "epho/base.h"

#endif /* EPHO_CAMERAFILE_H */
