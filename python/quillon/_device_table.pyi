"""Device classes and architectures as the C++ dispatch knows them; written by the build."""

DEVICE_CLASSES: tuple[str, ...]
"""Names of the classes in the order of their codes; the last holds every device that is not listed."""

ARCHITECTURES: dict[int, str]
"""The class of each listed 64-bit architecture identifier."""

MAX_DEVICES: int
"""How many XPU devices the library serves."""
