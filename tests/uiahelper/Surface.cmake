deskwright_add_tests(surface_test SOURCES Surface_test.cpp LIBS helpertest)
