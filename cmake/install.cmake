# Installation rules: headers, library, CLI, CMake package, pkg-config file.
