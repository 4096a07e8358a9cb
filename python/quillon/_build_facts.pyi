"""What the package has to know of its build, which writes it."""

TORCH_VERSION: str
"""The PyTorch that the libraries were built against, without its local version."""
