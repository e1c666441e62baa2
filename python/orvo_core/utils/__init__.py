"""Utilities of the core library."""
