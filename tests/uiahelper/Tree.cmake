deskwright_add_tests(tree_test SOURCES Tree_test.cpp LIBS helpertest)
