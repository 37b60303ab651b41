"""Python interface of the kzdvpholibu photogrammetry library.

The compiled core (``kzdvpholibu._core``) wraps the library's C interface:
angles and rotations, collinearity and lens distortion, frame cameras and
their transforms, NCC search and least-squares matching, image pyramids, the
camera file, the block file and the triangulation refinement. Arrays go in and
out as numpy arrays; float64 inputs that are C-contiguous are used in place.

Failures of the library raise :class:`Error` (a ``RuntimeError``) whose
message is the library's full error report; a wrong dtype raises
``TypeError`` and a wrong shape ``ValueError`` before the library is called.

The library starts no threads of its own; :mod:`kzdvpholibu.dask_block` fans
the work on a block out over Dask workers.
"""

from ._core import *  # noqa: F401,F403
from ._core import Error  # noqa: F401
from .blocks import triangulate_block  # noqa: F401

__all__ = [name for name in dir() if not name.startswith("_")]
