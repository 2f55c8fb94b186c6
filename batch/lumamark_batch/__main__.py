import sys

from .cli import main

# Local workers are started with the spawn method, which imports the main
# module again: only the real main module runs the command.
if __name__ == "__main__":
    sys.exit(main())
