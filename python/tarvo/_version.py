"""The version, which is that of the whole project."""

__version__ = "1.0.0"
