"""Typed access to C++ code under test, and helper processes."""
