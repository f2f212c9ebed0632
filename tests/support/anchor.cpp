int orbweave_test_support_anchor = 0;
