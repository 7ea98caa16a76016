# The formula of a Homebrew tap. A release fills in `homepage`, `url` and `sha256`: the tarball is the source tarball that
# scripts/package makes. Until then they are placeholders, as no release has an address yet, and
# `brew install --HEAD` with a `head` of one's own is the way to try it.
class VellicorRepack < Formula
  desc "Installer that streams one large language model checkpoint into an artifact"
  homepage "https://vellicor.invalid/"
  url "https://vellicor.invalid/releases/vellicor-repack-1.0.0.tar.gz"
  sha256 "0000000000000000000000000000000000000000000000000000000000000000"

  depends_on "cmake" => [:build, :test]
  depends_on "ninja" => :build
  depends_on "nlohmann-json" => :build
  depends_on "curl"
  depends_on "fmt"
  depends_on "icu4c"
  depends_on "openssl@3"

  def install
    system "cmake", "-S", ".", "-B", "build", "-G", "Ninja", *std_cmake_args,
           "-DVELLICOR_BUILD_TESTS=OFF"
    system "cmake", "--build", "build"
    system "cmake", "--install", "build"
  end

  test do
    assert_match "--verify-install", shell_output("#{bin}/VellicorRepack --help")
    refusal = shell_output("#{bin}/VellicorRepack --verify-install --input-morlen #{testpath} 2>&1", 1)
    assert_match "verification failed: ", refusal
    system "cmake", "-S", doc/"examples/read_tensor", "-B", "reader"
    system "cmake", "--build", "reader"
    assert_match "usage: ", shell_output("./reader/read_tensor 2>&1", 2)
  end
end
