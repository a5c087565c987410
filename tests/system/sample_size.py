"""How many a test tries where it could try any number."""

import os


def sample_size(quick, thorough):
    """The second number where FEATUREWATCH_THOROUGH is set, as CMake's option of that name does; else the first."""
    return thorough if os.environ.get("FEATUREWATCH_THOROUGH") else quick
