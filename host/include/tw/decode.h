// Picture decoding services: libjpeg-turbo for JPEG frames, libavcodec and libswscale
// for every other codec.
#pragma once

#include <cstdio>   // jpeglib.h needs FILE
#include <jpeglib.h>

struct AVCodecContext;
struct AVFrame;
struct AVPacket;
struct SwsContext;

// Decodes a JPEG picture into out (malloc'ed; reused or reallocated, freed by the caller
// with free). space JCS_GRAYSCALE gives one byte per pixel. scale is the reduction
// denominator: 1, 2, 4 and 8 are done in the DCT domain; 16 is 1/8 in the DCT domain
// followed by a 2 x 2 average, so a large picture is never decoded at full size.
// Returns 0 on success.
int DecodeJpeg(const unsigned char* data, int size, unsigned char** out, int& outSize,
               J_COLOR_SPACE space, unsigned int scale, int& width, int& height);

// State of one video decoder. pCodecCtx exposes the decoded width and height.
struct FFmpegAttr {
    AVCodecContext* pCodecCtx;
    AVFrame* pFrame;
    AVPacket* pPacket;
    SwsContext* pSwsCtx;
    int codec;          // VIDEO_CODEC_TYPE
    int swsSrcWidth;
    int swsSrcHeight;
    int swsSrcFormat;
    int swsDstWidth;
    int swsDstHeight;
    int blHasPicture;   // pFrame holds a decoded picture
    int swsFlags;       // scaler flags the cached pSwsCtx was built with
};

// Opens a decoder for a host codec with optional extra data. 0 on success.
int DoFFMpegInitVideo(FFmpegAttr& attr, int codec, const unsigned char* extra, int extraLen);
// Re-creates the decoder context (after the stream's extra data changed). 0 on success.
int DoFFMpegResetContext(FFmpegAttr& attr);
// Decodes one compressed frame. A key frame yields its picture in the same call.
int DoFFMpegDecode(FFmpegAttr& attr, const unsigned char* data, int size);
// Scales the last picture to width x height, packed 3 bytes per pixel into out
// (malloc'ed, reused or reallocated; outSize receives width * height * 3). flags are
// libswscale's SWS_* filter flags; 0 picks the host's default filter. 0 on success.
int DoFFMpegScale(FFmpegAttr& attr, unsigned char*& out, int& outSize, int& width, int& height,
                  int flags);
// Releases the decoder and the image buffer (image is set to null). 0 on success.
int DoFFMpegFree(FFmpegAttr& attr, unsigned char*& image);
