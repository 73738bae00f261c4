// Nothing but its name; see CMakeLists.txt.
