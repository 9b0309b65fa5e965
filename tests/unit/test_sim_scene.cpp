// What the simulated camera sees: the projection, the exposure, the colours and the ball.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "tools/sim/scene.h"

namespace nimbus::sim {
namespace {

constexpr std::size_t kMiddle = Scene::kHeight / 2 * Scene::kWidth + Scene::kWidth / 2;
constexpr std::size_t kBlue = Scene::kWidth * Scene::kHeight;
constexpr std::size_t kRed = kBlue * 5 / 4;
constexpr std::size_t kMiddleOfColour =
    Scene::kHeight / 4 * (Scene::kWidth / 2) + Scene::kWidth / 4;

/// Luma grows with the longitude, blue with the latitude downwards; red is even.
Panorama chart() {
  Panorama panorama;
  for (std::size_t y = 0; y < Panorama::kHeight; ++y) {
    for (std::size_t x = 0; x < Panorama::kWidth; ++x) {
      panorama.planes[y * Panorama::kWidth + x] = static_cast<std::uint8_t>(x / 8);
      panorama
          .planes[Panorama::kWidth * Panorama::kHeight + y / 2 * (Panorama::kWidth / 2) + x / 2] =
          static_cast<std::uint8_t>(y / 4);
    }
  }
  std::fill(panorama.planes.end() - Panorama::kWidth * Panorama::kHeight / 4, panorama.planes.end(),
            std::uint8_t{128});
  return panorama;
}

View at(double pan, double tilt, double roll = 0) {
  View view;
  view.angles = {pan, tilt, roll};
  return view;
}

TEST(Scene, TheMiddleOfThePictureIsWhereTheLensPoints) {
  Scene scene(chart());
  for (const double pan : {-170.0, -90.0, -1.0, 0.0, 45.0, 89.0, 170.0, 300.0}) {
    for (const double tilt : {-85.0, -30.0, 0.0, 20.0, 60.0}) {
      const auto& picture = scene.render(at(pan, tilt));
      const double turned = pan > 180 ? pan - 360 : pan;
      EXPECT_NEAR(picture[kMiddle], (turned + 180) / 360 * 256, 2) << pan << ", " << tilt;
      EXPECT_NEAR(picture[kBlue + kMiddleOfColour], (90 - tilt) / 180 * 256, 2)
          << pan << ", " << tilt;
    }
  }
}

TEST(Scene, TheFieldOfViewIsOf80Degrees) {
  Scene scene(chart());
  const auto& picture = scene.render(at(0, 0));
  const std::size_t row = Scene::kHeight / 2 * Scene::kWidth;
  EXPECT_NEAR(picture[row], (180 - 40) / 360.0 * 256, 2);
  EXPECT_NEAR(picture[row + Scene::kWidth - 1], (180 + 40) / 360.0 * 256, 2);
}

TEST(Scene, ARolledLensSeesTheHorizonSlant) {
  Scene scene(chart());
  const auto& picture = scene.render(at(0, 0, 45));
  const std::size_t row = kBlue + Scene::kHeight / 4 * (Scene::kWidth / 2);
  EXPECT_GT(std::abs(picture[row + 20] - picture[row + Scene::kWidth / 2 - 20]), 50);
}

TEST(Scene, TheSeamBehindIsNotSeen) {
  Panorama even;
  std::fill(even.planes.begin(), even.planes.end(), std::uint8_t{100});
  Scene scene(even);
  for (const double pan : {179.0, 180.0, 181.0, -180.0}) {
    for (const double tilt : {-120.0, -90.0, 0.0, 60.0}) {
      for (const std::uint8_t value : scene.render(at(pan, tilt, 13))) ASSERT_EQ(value, 100);
    }
  }
}

TEST(Scene, StopsAndWarmthChangeThePicture) {
  Scene scene(chart());
  View view = at(-60, 0);
  const auto right = scene.render(view);
  view.stops = 1;
  EXPECT_GT(scene.render(view)[kMiddle], right[kMiddle] + 10);
  view.stops = -1;
  EXPECT_LT(scene.render(view)[kMiddle], right[kMiddle] - 10);
  view.stops = 0;
  view.warmth = 2000;
  const auto& warm = scene.render(view);
  EXPECT_GT(warm[kRed + kMiddleOfColour], right[kRed + kMiddleOfColour]);
  EXPECT_LT(warm[kBlue + kMiddleOfColour], right[kBlue + kMiddleOfColour]);
}

TEST(Scene, TheBallIsDrawnWhereItIs) {
  Scene scene(chart());
  View view = at(0, 0);
  view.ball = {0.45F, 0.41F, 0.1F, 0.18F};
  const auto& picture = scene.render(view);
  EXPECT_GT(picture[kRed + kMiddleOfColour], 180);
  EXPECT_EQ(picture[kRed], 128);
  // Partly, and wholly, outside.
  for (const float x : {-0.05F, 0.97F, 3.0F, -3.0F}) {
    view.ball = {x, x, 0.1F, 0.18F};
    EXPECT_EQ(scene.render(view)[kRed + kMiddleOfColour], 128);
  }
}

TEST(Scene, WhereADirectionIsSeen) {
  const auto middle = seen_at({30, -20, 10}, 30, -20).value();
  EXPECT_NEAR(middle.x, 0.5, 1e-6);
  EXPECT_NEAR(middle.y, 0.5, 1e-6);
  EXPECT_NEAR(seen_at({0, 0, 0}, 40, 0).value().x, 1, 1e-6);
  EXPECT_LT(seen_at({0, 0, 0}, 0, 10).value().y, 0.5);
  EXPECT_FALSE(seen_at({0, 0, 0}, 180, 0));
}

/// Gives the camera a command by its name.
void apply(CameraModel& camera, std::string_view name, const std::vector<std::uint8_t>& payload) {
  const auto rows = all_commands();
  const auto row = std::find_if(rows.begin(), rows.end(),
                                [name](const CameraCommand& one) { return one.name == name; });
  ASSERT_NE(row, rows.end()) << name;
  EXPECT_EQ(camera.apply(*row, payload), "");
}

TEST(SceneView, FollowsTheCamera) {
  CameraModel camera;
  camera.tick(1);
  View view = view_of(camera);
  EXPECT_EQ(view.angles, camera.gimbal().angles());
  EXPECT_EQ(view.stops, 0);
  EXPECT_EQ(view.warmth, 0);
  EXPECT_GT(view.ball.width, 0);
  apply(camera, "white balance", {6, 56});
  EXPECT_EQ(view_of(camera).warmth, -1200);
}

TEST(SceneView, ExposureByHandAndOtherwise) {
  CameraModel camera;
  apply(camera, "ISO", {5});  // 400
  EXPECT_EQ(view_of(camera).stops, 0) << "the camera makes up for it";
  apply(camera, "EV", {19});
  EXPECT_EQ(view_of(camera).stops, 1);
  apply(camera, "exposure mode", {4, 0});
  EXPECT_NEAR(view_of(camera).stops, 2, 0.01);
  apply(camera, "shutter", {1, 200, 0x80, 0});
  EXPECT_NEAR(view_of(camera).stops, 0, 0.01);
  apply(camera, "shutter", {1, 6, 0x80, 25});  // 1/6.25 s
  EXPECT_NEAR(view_of(camera).stops, 5, 0.01);
  apply(camera, "shutter", {1, 1, 0, 6});  // 1.6 s
  EXPECT_NEAR(view_of(camera).stops, 8.32, 0.01);
}

TEST(SceneView, ATrackedSubjectIsTheBall) {
  CameraModel camera(5);
  std::array<std::uint8_t, 21> payload{1};
  const std::array<float, 4> rectangle{0.2F, 0.6F, 0.1F, 0.1F};
  for (std::size_t n = 0; n < rectangle.size(); ++n) {
    const auto bits = std::bit_cast<std::uint32_t>(rectangle[n]);
    for (std::size_t i = 0; i < 4; ++i) {
      payload[5 + 4 * n + i] = static_cast<std::uint8_t>(bits >> (8 * i));
    }
  }
  apply(camera, "tracking", {payload.begin(), payload.end()});
  for (int second = 0; second < 4; ++second) {
    const Rectangle ball = view_of(camera).ball;
    const Rectangle subject = camera.subject();
    EXPECT_NEAR(ball.x + ball.width / 2, subject.x + subject.width / 2, 1e-6);
    EXPECT_NEAR(ball.y + ball.height / 2, subject.y + subject.height / 2, 1e-6);
    camera.tick(1);
  }
  camera.tick(2);
  EXPECT_EQ(view_of(camera).ball.width, 0) << "it was lost";
}

}  // namespace
}  // namespace nimbus::sim
