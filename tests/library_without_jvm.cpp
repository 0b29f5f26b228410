// A library that the launcher has to reject: it exports no JNI_CreateJavaVM.
