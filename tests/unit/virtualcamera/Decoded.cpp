#include "virtualcamera/Decoded.h"

#include <stb_image.h>

double Decoded::mean(int channel) const
{
    const auto end = static_cast<std::size_t>(width * (height * 3 / 4)) * 3;
    double sum = 0;
    for (std::size_t i = static_cast<std::size_t>(channel); i < end; i += 3) {
        sum += samples[i];
    }
    return sum / (static_cast<double>(end) / 3);
}

Decoded decode(const Bytes& file)
{
    Decoded decoded;
    int channels = 0;
    std::uint8_t* samples = stbi_load_from_memory(file.data(), static_cast<int>(file.size()),
                                                  &decoded.width, &decoded.height, &channels, 3);
    if (samples == nullptr) {
        return {};
    }
    const auto size = static_cast<std::size_t>(decoded.width * decoded.height) * 3;
    decoded.samples.assign(samples, samples + size);
    stbi_image_free(samples);
    return decoded;
}
