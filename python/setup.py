"""Records, in the installed package, what it takes from this checkout.

The package looks for libostrel_alg.so in the checkout's build/ folder
among other places (see ostrel/_library.py); the folder is only known here,
at install time, so it is written into ostrel/_build_tree.py of the build.
The pixel limits of pictures are defined in the C sources (see
ostrel/_c_headers.py); they are read here and written into
ostrel/_header_values.py, so that an installed package needs no checkout.
"""
import os
import runpy

from setuptools import setup
from setuptools.command.build_py import build_py

HERE = os.path.dirname(os.path.abspath(__file__))
CHECKOUT = os.path.dirname(HERE)
CHECKOUT_BUILD_DIR = os.path.join(CHECKOUT, "build")


def _header_values() -> dict:
    # Loaded from its file alone: importing the package here would need its
    # dependencies at build time.
    names = runpy.run_path(os.path.join(HERE, "ostrel", "_c_headers.py"))
    return names["read_values"](CHECKOUT)


class BuildPyWithBuildTree(build_py):
    def run(self) -> None:
        super().run()
        target = os.path.join(self.build_lib, "ostrel", "_build_tree.py")
        with open(target, "w", encoding="utf-8") as file:
            file.write('"""Written at install time: the build folder of the checkout the package came from."""\n')
            file.write(f"BUILD_DIR = {CHECKOUT_BUILD_DIR!r}\n")
        target = os.path.join(self.build_lib, "ostrel", "_header_values.py")
        with open(target, "w", encoding="utf-8") as file:
            file.write('"""Written at install time from the C sources of the checkout (see _c_headers.py)."""\n')
            for name, value in sorted(_header_values().items()):
                file.write(f"{name} = {value}\n")


setup(cmdclass={"build_py": BuildPyWithBuildTree})
