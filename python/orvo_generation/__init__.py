"""Focuses on generating responses based on retrieved information."""
