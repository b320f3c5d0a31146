"""Records, in the installed package, where this checkout builds the library.

The package looks for libostrel_alg.so in the checkout's build/ folder
among other places (see ostrel/_library.py); the folder is only known here,
at install time, so it is written into ostrel/_build_tree.py of the build.
"""
import os

from setuptools import setup
from setuptools.command.build_py import build_py

CHECKOUT_BUILD_DIR = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "build")


class BuildPyWithBuildTree(build_py):
    def run(self) -> None:
        super().run()
        target = os.path.join(self.build_lib, "ostrel", "_build_tree.py")
        with open(target, "w", encoding="utf-8") as file:
            file.write('"""Written at install time: the build folder of the checkout the package came from."""\n')
            file.write(f"BUILD_DIR = {CHECKOUT_BUILD_DIR!r}\n")


setup(cmdclass={"build_py": BuildPyWithBuildTree})
