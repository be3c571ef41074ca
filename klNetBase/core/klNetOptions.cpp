#include <klNetBase/core/klNetOptions.h>

int klNetOptions::s_dataCompression = -1;
int klNetOptions::s_imageCompression = -1;

void klNetOptions::setDataCompression(klNetCompression compression) {
    s_dataCompression = compression;
}

klNetCompression klNetOptions::getDataCompression() {
    return s_dataCompression < 0 ? getDefaultDataCompression()
                                 : klNetCompression(s_dataCompression);
}

void klNetOptions::setImageCompression(klNetCompression compression) {
    s_imageCompression = compression;
}

klNetCompression klNetOptions::getImageCompression() {
    return s_imageCompression < 0 ? getDefaultImageCompression()
                                  : klNetCompression(s_imageCompression);
}
