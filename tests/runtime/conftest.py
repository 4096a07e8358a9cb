"""Brings the host device up before anything asks for it."""

import quillon  # noqa: F401
