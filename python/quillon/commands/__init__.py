"""What ``python -m quillon`` does, a module for each group of commands."""
