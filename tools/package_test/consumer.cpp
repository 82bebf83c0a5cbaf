// A user's program: all public headers, one call into the library.
#include <cstdio>
#include <vel/vel.h>

int main() {
    VEL_MD5 md5;
    md5.update("abc", 3);
    md5.final();
    std::string digest = md5.getMD5reshex();
    std::puts(digest.c_str());
    return digest == "900150983CD24FB0D6963F7D28E17F72" ? 0 : 1;
}
