// The daemon's polling loop: fetches the link manager, runs one evaluation
// per period once the interfaces are configured, follows the debug property,
// and ends when "vendor.vek.enabled" reads 2.
#pragma once

class NuvManager;
class Parameters;

class MainLoop {
  public:
    explicit MainLoop(Parameters* params);

    // One turn of the loop; false when the feature is switched off.
    bool turn();
    // Turns until the feature is switched off.
    void run();
    // After run(): takes the rules down and stops the statistics.
    void shutdown();

    NuvManager* manager() const { return m_manager; }

  private:
    Parameters* m_params;
    NuvManager* m_manager = nullptr;
};
