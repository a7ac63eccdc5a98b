deskwright_add_tests(naming_test SOURCES Naming_test.cpp LIBS helpertest)
